#include "tools/refserver/query_error.h"

#include <vector>

#include "utils/context.h"
#include "utils/kest_assert.h"

namespace {
constexpr const char* kFacility = "REFSERVER";
thread_local int g_build_depth = 0;
thread_local int g_eval_depth = 0;
}  // namespace

void query_fail(QueryContext* ctx, int32_t code, std::initializer_list<std::string> params) {
  std::vector<const char*> p;
  for (const std::string& s : params) p.push_back(s.c_str());
  switch (p.size()) {
    case 0:
      add_error(ctx, kFacility, code, 0);
      break;
    case 1:
      add_error(ctx, kFacility, code, 1, p[0]);
      break;
    case 2:
      add_error(ctx, kFacility, code, 2, p[0], p[1]);
      break;
    case 3:
      add_error(ctx, kFacility, code, 3, p[0], p[1], p[2]);
      break;
    default:
      KEST_ASSERT(kFacility, p.size() == 4);
      add_error(ctx, kFacility, code, 4, p[0], p[1], p[2], p[3]);
      break;
  }
  throw QueryFailed{};
}

NestingGuard::NestingGuard(QueryContext* ctx, Walk walk)
    : depth_(walk == Walk::build ? g_build_depth : g_eval_depth) {
  if (depth_ >= kMaxQueryNesting) {
    query_fail(ctx, kErrNestingDepth, {std::to_string(kMaxQueryNesting)});
  }
  ++depth_;
}

NestingGuard::~NestingGuard() { --depth_; }
