// Memory contexts: limits, reservations and accounting (see mem_account.h).
#include "utils/mem_account.h"

#include <algorithm>
#include <cinttypes>

#include "utils/kest_assert.h"
#include "utils/znlog.h"

namespace mem_account {

SystemState& sys() {
  static SystemState* state = [] {
    auto* s = new SystemState;
    s->account.huge_page_size = large_page_size();
    s->lock = lock_create();
    KEST_ASSERT(kFacility, s->lock != nullptr);
    return s;
  }();
  return *state;
}

const char* name_of(const MemContext* ctx) { return ctx && ctx->name ? ctx->name : "(null)"; }

namespace {

// The shortfall of `root` is asked from the system-wide account; all or nothing.
bool request_grant(MemContext* root, Amounts need, Amounts* granted) {
  Amounts want;
  if (root->maxMem > 0 && root->totMem + need.mem > root->maxMem)
    want.mem = root->totMem + need.mem - root->maxMem;
  if (root->maxVM > 0 && root->totVM + need.vm > root->maxVM)
    want.vm = root->totVM + need.vm - root->maxVM;
  GlobalLock global;
  MemSystemAccount& acc = sys().account;
  if ((acc.maxMem > 0 && acc.curMem + want.mem > acc.maxMem) ||
      (acc.maxVM > 0 && acc.curVM + want.vm > acc.maxVM))
    return false;
  acc.curMem += want.mem;
  acc.curVM += want.vm;
  acc.hiMem = std::max(acc.hiMem, acc.curMem);
  acc.hiVM = std::max(acc.hiVM, acc.curVM);
  root->maxMem += want.mem;
  root->maxVM += want.vm;
  *granted = want;
  return true;
}

void give_back_grant(MemContext* root, Amounts granted) {
  if (granted.mem == 0 && granted.vm == 0) return;
  GlobalLock global;
  MemSystemAccount& acc = sys().account;
  acc.curMem -= granted.mem;
  acc.curVM -= granted.vm;
  root->maxMem -= granted.mem;
  root->maxVM -= granted.vm;
}

bool fits(const MemContext* c, Amounts a) {
  return (c->maxMem == 0 || c->maxMem >= c->totMem + a.mem) &&
         (c->maxVM == 0 || c->maxVM >= c->totVM + a.vm);
}

// A limit below the root is hard: the check lets it pass and the accounting asserts.
bool check_limits(MemContext* ctx, Amounts req, uint32_t flags, Amounts* granted) {
  *granted = Amounts{};
  if (flags & kReservedFlags) {
    ZN_LOG(kFacility, ZN_DEBUG,
           "Context %s uses %" PRIu64 " (mem) %" PRIu64 " (vm) of the reserved memory.",
           name_of(ctx), std::min(req.mem, ctx->mem_rsrvd), std::min(req.vm, ctx->vm_rsrvd));
    if (ctx->mem_rsrvd >= req.mem && ctx->vm_rsrvd >= req.vm) return true;
    if (flags & KEST_MEM_USE_RESERVED_ONLY) {
      ZN_LOG(kFacility, ZN_ERROR,
             "Not enough memory reserved in %s context for USE_RESERVED_ONLY allocation. "
             "mem_req = %lld mem_reserved = %lld vm_req = %lld vm_reserved = %lld",
             name_of(ctx), static_cast<long long>(req.mem), static_cast<long long>(ctx->mem_rsrvd),
             static_cast<long long>(req.vm), static_cast<long long>(ctx->vm_rsrvd));
      return false;
    }
    req.mem -= std::min(req.mem, ctx->mem_rsrvd);
    req.vm -= std::min(req.vm, ctx->vm_rsrvd);
  }
  MemContext* c = ctx;
  while (fits(c, req)) {
    if (!c->parent) return true;
    c = c->parent;
  }
  if (c->parent) return true;
  return request_grant(c, req, granted);
}

}  // namespace

void account_up(MemContext* ctx, uint64_t memReq, uint64_t vmReq) {
  ctx->curMem += memReq;
  ctx->curVM += vmReq;
  for (MemContext* c = ctx; c; c = c->parent) {
    c->totMem += memReq;
    c->totVM += vmReq;
  }
}

namespace {

void assert_limits_up(MemContext* ctx) {
  for (; ctx; ctx = ctx->parent) {
    KEST_ASSERT(kFacility, IMPLIES(ctx->maxMem > 0, ctx->maxMem >= ctx->totMem));
    KEST_ASSERT(kFacility, IMPLIES(ctx->maxVM > 0, ctx->maxVM >= ctx->totVM));
  }
}

}  // namespace

void raise_high_marks(MemContext* ctx) {
  for (; ctx; ctx = ctx->parent) {
    ctx->hiMem = std::max(ctx->hiMem, ctx->totMem);
    ctx->hiVM = std::max(ctx->hiVM, ctx->totVM);
  }
}

namespace {

// Returns what was taken from the reservation, for undoing.
Amounts account(MemContext* ctx, Amounts req, uint32_t flags) {
  Amounts taken;
  uint64_t memReq = req.mem, vmReq = req.vm;
  if (flags & kReservedFlags) {
    taken.mem = std::min(memReq, ctx->mem_rsrvd);
    taken.vm = std::min(vmReq, ctx->vm_rsrvd);
    ctx->mem_rsrvd -= taken.mem;
    ctx->vm_rsrvd -= taken.vm;
    memReq -= taken.mem;
    vmReq -= taken.vm;
    KEST_ASSERT(kFacility, IMPLIES(flags & KEST_MEM_USE_RESERVED_ONLY, memReq == 0 && vmReq == 0));
  }
  account_up(ctx, memReq, vmReq);
  assert_limits_up(ctx);
  return taken;
}

}  // namespace

void unaccount(MemContext* ctx, Amounts req, Amounts taken, Amounts granted) {
  account_up(ctx, taken.mem - req.mem, taken.vm - req.vm);
  ctx->mem_rsrvd += taken.mem;
  ctx->vm_rsrvd += taken.vm;
  MemContext* root = ctx;
  while (root->parent) root = root->parent;
  give_back_grant(root, granted);
}

bool charge(MemContext* ctx, Amounts req, uint32_t flags, Amounts* taken, Amounts* granted) {
  TreeLock guard(ctx);
  if (!check_limits(ctx, req, flags, granted)) return false;
  *taken = account(ctx, req, flags);
  return true;
}

}  // namespace mem_account

using namespace mem_account;

int mem_context_set_limits(MemContext* ctx, uint64_t max_mem, uint64_t max_vm) {
  TreeLock guard(ctx);
  if ((max_mem > 0 && max_mem < ctx->totMem) || (max_vm > 0 && max_vm < ctx->totVM)) return -1;
  if (!ctx->parent) {
    GlobalLock global;
    MemSystemAccount& acc = sys().account;
    const uint64_t mem = acc.curMem - ctx->maxMem + max_mem;
    const uint64_t vm = acc.curVM - ctx->maxVM + max_vm;
    if ((acc.maxMem > 0 && mem > acc.maxMem) || (acc.maxVM > 0 && vm > acc.maxVM)) return -1;
    acc.curMem = mem;
    acc.curVM = vm;
    acc.hiMem = std::max(acc.hiMem, mem);
    acc.hiVM = std::max(acc.hiVM, vm);
  }
  ctx->maxMem = max_mem;
  ctx->maxVM = max_vm;
  return 0;
}

int mem_context_reserve(MemContext* ctx, uint64_t mem, uint64_t vm) {
  TreeLock guard(ctx);
  // Unlike an allocation, a reservation that a limit below the root refuses is an ordinary
  // failure.
  for (MemContext* c = ctx; c->parent; c = c->parent)
    if (!fits(c, Amounts{mem, vm})) return -1;
  Amounts granted;
  if (!check_limits(ctx, Amounts{mem, vm}, 0, &granted)) return -1;
  account(ctx, Amounts{mem, vm}, 0);
  raise_high_marks(ctx);
  ctx->mem_rsrvd += mem;
  ctx->vm_rsrvd += vm;
  return 0;
}

void mem_context_set_concurrent(MemContext* ctx) {
  TreeLock guard(ctx, true);
  KEST_ASSERT(kFacility, !ctx->is_concurrent);
  ctx->is_concurrent = 1;
}

void mem_context_thread_enter(MemContext* ctx) {
  TreeLock guard(ctx, true);
  KEST_ASSERT(kFacility, !ctx->is_concurrent);
  MemThreadSafety* ts = ctx->thread_safety;
  ts->num_threads_running += 1;
  ts->need_to_lock = ts->num_threads_running > 1;
}

void mem_context_thread_leave(MemContext* ctx) {
  TreeLock guard(ctx, true);
  KEST_ASSERT(kFacility, ctx->thread_safety->num_threads_running > 0);
  MemThreadSafety* ts = ctx->thread_safety;
  ts->num_threads_running -= 1;
  ts->need_to_lock = ts->num_threads_running > 1;
}

MemSystemAccount mem_system_account() {
  GlobalLock global;
  return sys().account;
}

void mem_system_set_limits(uint64_t max_mem, uint64_t max_vm) {
  GlobalLock global;
  sys().account.maxMem = max_mem;
  sys().account.maxVM = max_vm;
}
