#include "utils/longjmp_ctx.h"

#include <cstdlib>
#include <new>

#include "utils/kest_assert.h"
#include "utils/platform.h"

namespace {
constexpr const char* kFacility = nullptr;

// Under the context's lock. Nodes are pushed at the head, so the first match is the newest.
LongJmpNode* find_node(LongJmpCtx* ctx, uint32_t thread_id) {
  for (LongJmpNode* n = ctx->nodes; n; n = n->next)
    if (n->thread_id == thread_id) return n;
  return nullptr;
}
}  // namespace

LongJmpCtx* longjmp_ctx_create() {
  auto* ctx = new (std::nothrow) LongJmpCtx{};
  if (!ctx) return nullptr;
  ctx->lock = lock_create();
  if (!ctx->lock) {
    delete ctx;
    return nullptr;
  }
  return ctx;
}

void longjmp_ctx_destroy(LongJmpCtx* ljc) {
  if (!ljc) return;
  KEST_ASSERT(kFacility, ljc->nodes == nullptr);
  lock_destroy(ljc->lock);
  delete ljc;
}

void longjmp_ctx_register(LongJmpCtx* ljc, LongJmpNode* node) {
  node->thread_id = current_thread_id();
  node->jumped = 0;
  node->code = 0;
  lock_acquire(ljc->lock);
  node->next = ljc->nodes;
  ljc->nodes = node;
  lock_release(ljc->lock);
}

void longjmp_ctx_unregister(LongJmpCtx* ljc, LongJmpNode* node) {
  lock_acquire(ljc->lock);
  for (LongJmpNode** link = &ljc->nodes; *link; link = &(*link)->next) {
    if (*link == node) {
      *link = node->next;
      break;
    }
  }
  lock_release(ljc->lock);
  node->next = nullptr;
}

void longjmp_ctx_jump(LongJmpCtx* ctx, int code) {
  LongJmpNode* ljc = nullptr;
  bool jumped_before = false;
  if (ctx) {
    lock_acquire(ctx->lock);
    ljc = find_node(ctx, current_thread_id());
    if (ljc) {
      jumped_before = ljc->jumped != 0;
      if (!jumped_before) {
        ljc->jumped = 1;
        ljc->code = code;
      }
    }
    lock_release(ctx->lock);
  }
  KEST_ASSERT_TEXT(kFacility, ljc != nullptr, "ljc != NULL");
  KEST_ASSERT_TEXT(kFacility, !jumped_before, "ljc->jumped == FALSE");
  std::longjmp(ljc->env, code);
}
