// The reference server's query parser, planner and evaluator under hostile text: any bytes a
// client may send as a query. Header-only, shared by the fuzz target and the replay test.
//
// Checks: a query either parses into a tree no deeper than kMaxQueryNesting, or fails with a
// parse error (10) or an unknown relation (13) whose position lies inside the text; parsing the
// same text twice gives the same outcome (so no nesting count leaks from a failed walk); a query
// small enough to run (at most kQueryRowBudget rows from its Array) runs to its end or fails with
// an error of the table, every vector within the vector size and every data message reporting the
// size it builds. Any other exception, a crash or a sanitizer report is a fault.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/support/fuzz_common.h"
#include "tools/refserver/parser.h"
#include "tools/refserver/query_error.h"
#include "tools/refserver/relation.h"
#include "tools/refserver/stream.h"
#include "utils/context.h"
#include "utils/kest_error.h"
#include "utils/netbuffer.h"

namespace kest_fuzz {

// Rows a query may ask its Array for and still be run, and the rows of one vector.
constexpr uint64_t kQueryRowBudget = 4096;
constexpr size_t kQueryVectorSize = 7;

// The deepest level of the tree as the parser counts it (relations and expressions together),
// walked without recursion.
inline int tree_depth(const RelNode& root) {
  int deepest = 0;
  std::vector<std::pair<const RelNode*, int>> rels = {{&root, 1}};
  std::vector<std::pair<const Expr*, int>> exprs;
  while (!rels.empty()) {
    const auto [rel, level] = rels.back();
    rels.pop_back();
    deepest = std::max(deepest, level);
    if (rel->input) rels.emplace_back(rel->input.get(), level + 1);
    for (const RelNode::Item& item : rel->items) exprs.emplace_back(&item.expr, level + 1);
    if (rel->kind == RelNode::Kind::select) exprs.emplace_back(&rel->predicate, level + 1);
  }
  while (!exprs.empty()) {
    const auto [e, level] = exprs.back();
    exprs.pop_back();
    deepest = std::max(deepest, level);
    for (const Expr& a : e->args) exprs.emplace_back(&a, level + 1);
  }
  return deepest;
}

// The rows the query's Array asks for, or more than kQueryRowBudget when it asks for too many.
inline uint64_t array_rows(const RelNode& root) {
  const RelNode* rel = &root;
  while (rel->input) rel = rel->input.get();
  uint64_t rows = 1;
  for (const RelNode::Dim& d : rel->dims) {
    if (d.size.size() > 6) return kQueryRowBudget + 1;
    rows *= std::stoull(d.size);
    if (rows > kQueryRowBudget) return kQueryRowBudget + 1;
  }
  return rows;
}

// The first error recorded on `ctx` as text: "code|param|param...".
inline std::string first_error(const QueryContext* ctx) {
  if (ctx->errors == nullptr) return "(no error recorded)";
  std::string out = std::to_string(ctx->errors->code);
  for (int32_t i = 0; i < ctx->errors->num_err_params; ++i)
    out += std::string("|") + (ctx->errors->params[i] ? ctx->errors->params[i] : "(null)");
  return out;
}

// Parses `text`: the outcome as text (the tree's depth, or the first error), and the tree.
inline std::string parse_outcome(const std::string& text, std::unique_ptr<RelNode>* tree) {
  QueryContext* ctx = query_context_create(nullptr);
  std::string outcome;
  try {
    *tree = parse_query(ctx, text);
    outcome = "depth " + std::to_string(tree_depth(**tree));
  } catch (const QueryFailed&) {
    outcome = "error " + first_error(ctx);
  }
  query_context_destroy(ctx);
  return outcome;
}

// What is wrong with a parse error's record, or empty.
inline std::string check_parse_error(const KestError* e, std::string_view text) {
  if (e->code == 13) return e->num_err_params == 1 ? "" : "error 13 without its name";
  if (e->code != KEST_ERR_PARSE) return "parse failed with error " + std::to_string(e->code);
  if (e->num_err_params != 4 || std::string_view(e->params[0]) != "query")
    return "parse error without source, line, column and reason";
  const long line = std::strtol(e->params[1], nullptr, 10);
  const long column = std::strtol(e->params[2], nullptr, 10);
  const auto lines = static_cast<long>(std::count(text.begin(), text.end(), '\n')) + 1;
  if (line < 1 || line > lines || column < 1 || column > static_cast<long>(text.size()) + 1)
    return "parse error at line " + std::to_string(line) + ", column " + std::to_string(column) +
           " outside the text";
  return {};
}

// Runs a parsed query to its end, building every message; empty when it held.
inline std::string check_run(const RelNode& tree) {
  QueryContext* ctx = query_context_create(nullptr);
  NetBuffer nb{};
  nb.socket = -1;  // built, never sent
  std::string why;
  try {
    const auto source = build_plan(ctx, tree, kQueryVectorSize, nullptr);
    const Schema& schema = source->schema();
    put_ack(&nb, schema, static_cast<int32_t>(kQueryVectorSize));
    Batch batch;
    while (why.empty() && source->next(batch)) {
      if (batch.rows == 0 || batch.rows > kQueryVectorSize) why = "a vector of bad size";
      if (batch.columns.size() != schema.names.size()) why = "a vector without every column";
      for (const Vector& v : batch.columns)
        if (!v.is_const && v.rows != batch.rows) why = "a column of another length";
      if (why.empty() && put_data(&nb, schema, batch) != nb.pos)
        why = "a data message of another size than it reports";
    }
  } catch (const QueryFailed&) {
    const int32_t code = ctx->errors ? ctx->errors->code : -1;
    if (code <= 0 || code >= KEST_ERROR_COUNT) why = "query failed with code " + first_error(ctx);
  }
  NetBufferClose(&nb);
  query_context_destroy(ctx);
  return why;
}

inline std::string check_query(const uint8_t* data, size_t size, bool* skipped = nullptr) {
  fuzz_init();
  if (skipped) *skipped = false;
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<RelNode> tree, again;
  const std::string outcome = parse_outcome(text, &tree);
  if (parse_outcome(text, &again) != outcome)
    return "a second parse gave another outcome than " + outcome;
  if (!tree) {
    QueryContext* ctx = query_context_create(nullptr);
    std::string why;
    try {
      parse_query(ctx, text);
    } catch (const QueryFailed&) {
      why = ctx->errors ? check_parse_error(ctx->errors, text) : "no error recorded";
    }
    query_context_destroy(ctx);
    return why;
  }
  if (tree_depth(*tree) > kMaxQueryNesting) return "accepted a tree of " + outcome;
  if (array_rows(*tree) > kQueryRowBudget) return {};
  return check_run(*tree);
}

}  // namespace kest_fuzz
