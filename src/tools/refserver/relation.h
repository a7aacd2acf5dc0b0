// Relations of the reference server, evaluated vector by vector so that memory stays flat
// whatever the size of the result: Array generates its rows, Project computes its expressions,
// Select filters rows within each vector (so a vector may carry fewer rows than the vector size,
// never more).
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "tools/refserver/expr.h"
#include "tools/refserver/parser.h"

struct QueryContext;

class RowSource {
 public:
  virtual ~RowSource() = default;
  const Schema& schema() const { return schema_; }
  // Fills `out` with the next vector of 1 to vectorsize rows; false after the last one.
  // Evaluation errors raise QueryFailed with the error recorded on the context.
  virtual bool next(Batch& out) = 0;

 protected:
  Schema schema_;
};

// Compiles `rel` into a source of vectors of at most `vector_size` rows. `ctx` and `stop` must
// outlive the source; once `stop` is set, a running source fails with error 174 (shutting down).
std::unique_ptr<RowSource> build_plan(QueryContext* ctx, const RelNode& rel, size_t vector_size,
                                      const std::atomic<bool>* stop);
