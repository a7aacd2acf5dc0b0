#include "tools/refserver/relation.h"

#include <algorithm>

#include "kernel/ltype.h"
#include "tools/refserver/query_error.h"
#include "utils/kest_error.h"

namespace {

void check_stop(QueryContext* ctx, const std::atomic<bool>* stop) {
  if (stop && stop->load()) query_fail(ctx, KEST_ERR_SHUTTING_DOWN);
}

void add_column(Schema& s, const std::string& name, const ColumnType& type,
                std::shared_ptr<const Vector> constant = nullptr) {
  s.names.push_back(name);
  s.types.push_back(type);
  s.constants.push_back(std::move(constant));
}

void check_unique(QueryContext* ctx, const Schema& s, const std::string& name, const char* rel) {
  if (std::find(s.names.begin(), s.names.end(), name) != s.names.end()) {
    query_fail(ctx, KEST_ERR_DUPLICATE_COLUMN, {name, rel});
  }
}

// Array([i=N, j=M, ...]): one column per dimension counting from 0, the last fastest.
class ArraySource : public RowSource {
 public:
  ArraySource(QueryContext* ctx, const RelNode& rel, size_t vector_size,
              const std::atomic<bool>* stop)
      : ctx_(ctx), vector_size_(vector_size), stop_(stop) {
    for (const RelNode::Dim& d : rel.dims) {
      check_unique(ctx, schema_, d.name, "Array");
      uint64_t size = 0;
      for (char c : d.size) {
        if (size > (UINT64_MAX - 9) / 10)
          query_fail(ctx, KEST_ERR_ARRAY_DIMENSION, {d.name, d.size});
        size = size * 10 + static_cast<uint64_t>(c - '0');
      }
      if (size > static_cast<uint64_t>(INT64_MAX)) {
        query_fail(ctx, KEST_ERR_ARRAY_DIMENSION, {d.name, d.size});
      }
      sizes_.push_back(size);
      const uint32_t type =
          size - (size > 0) > static_cast<uint64_t>(INT32_MAX) ? LTYPE_SLNG : LTYPE_SINT;
      add_column(schema_, d.name, ColumnType{type, false, false});
    }
    total_ = 1;
    for (uint64_t s : sizes_) {
      if (s != 0 && total_ > static_cast<uint64_t>(INT64_MAX) / s) {
        query_fail(ctx, 120, {"Array", std::to_string(INT64_MAX)});
      }
      total_ *= s;
    }
  }

  bool next(Batch& out) override {
    if (next_row_ >= total_) return false;
    check_stop(ctx_, stop_);
    const uint64_t rows = std::min<uint64_t>(vector_size_, total_ - next_row_);
    out.rows = rows;
    out.columns.clear();
    uint64_t stride = total_;
    for (size_t d = 0; d < sizes_.size(); ++d) {
      stride /= sizes_[d];
      Vector v = make_vector(schema_.types[d], rows);
      for (uint64_t r = 0; r < rows; ++r) v.ints.push_back((next_row_ + r) / stride % sizes_[d]);
      v.rows = rows;
      out.columns.push_back(std::move(v));
    }
    next_row_ += rows;
    return true;
  }

 private:
  QueryContext* ctx_;
  size_t vector_size_;
  const std::atomic<bool>* stop_;
  std::vector<uint64_t> sizes_;
  uint64_t total_ = 0;
  uint64_t next_row_ = 0;
};

class ProjectSource : public RowSource {
 public:
  ProjectSource(QueryContext* ctx, const RelNode& rel, std::unique_ptr<RowSource> input)
      : ctx_(ctx), input_(std::move(input)) {
    for (const RelNode::Item& item : rel.items) {
      check_unique(ctx, schema_, item.name, "Project");
      exprs_.push_back(compile_expr(ctx, item.expr, input_->schema()));
      const CExpr& e = exprs_.back();
      add_column(schema_, item.name, e.type,
                 e.op == CExpr::Op::constant ? std::make_shared<const Vector>(e.value) : nullptr);
    }
  }

  bool next(Batch& out) override {
    Batch in;
    if (!input_->next(in)) return false;
    out.rows = in.rows;
    out.columns.clear();
    for (const CExpr& e : exprs_) out.columns.push_back(eval_expr(ctx_, e, in));
    return true;
  }

 private:
  QueryContext* ctx_;
  std::unique_ptr<RowSource> input_;
  std::vector<CExpr> exprs_;
};

class SelectSource : public RowSource {
 public:
  SelectSource(QueryContext* ctx, const RelNode& rel, std::unique_ptr<RowSource> input,
               const std::atomic<bool>* stop)
      : ctx_(ctx), input_(std::move(input)), stop_(stop) {
    schema_ = input_->schema();
    predicate_ = compile_expr(ctx, rel.predicate, schema_);
    if (ltype_id(predicate_.type.ltype) != LTYPE_BOOL) {
      query_fail(ctx, KEST_ERR_TYPE_MISMATCH, {"Select", "bool", type_text(predicate_.type.ltype)});
    }
  }

  bool next(Batch& out) override {
    for (;;) {
      check_stop(ctx_, stop_);
      Batch in;
      if (!input_->next(in)) return false;
      const Vector keep = eval_expr(ctx_, predicate_, in);
      std::vector<uint8_t> flags(in.rows);
      size_t kept = 0;
      for (size_t i = 0; i < in.rows; ++i) {
        flags[i] = !keep.is_null(i) && keep.ints[keep.at(i)] != 0;
        kept += flags[i];
      }
      if (kept == 0) continue;
      out.rows = kept;
      out.columns.clear();
      for (const Vector& v : in.columns) {
        out.columns.push_back(kept == in.rows ? v : filter_vector(v, flags, kept));
      }
      return true;
    }
  }

 private:
  QueryContext* ctx_;
  std::unique_ptr<RowSource> input_;
  const std::atomic<bool>* stop_;
  CExpr predicate_;
};

}  // namespace

std::unique_ptr<RowSource> build_plan(QueryContext* ctx, const RelNode& rel, size_t vector_size,
                                      const std::atomic<bool>* stop) {
  const NestingGuard level(ctx, Walk::build);
  switch (rel.kind) {
    case RelNode::Kind::array:
      return std::make_unique<ArraySource>(ctx, rel, vector_size, stop);
    case RelNode::Kind::project:
      return std::make_unique<ProjectSource>(ctx, rel,
                                             build_plan(ctx, *rel.input, vector_size, stop));
    default:
      return std::make_unique<SelectSource>(ctx, rel,
                                            build_plan(ctx, *rel.input, vector_size, stop), stop);
  }
}
