// Accounting and limits of memory contexts, shared with the allocator (mem.cpp): the system-wide
// account and its lock, the tree lock, limit checks with grants from the system-wide account to
// roots, reservations, and the totals and high-water marks kept up the tree. Internal to the
// memory contexts; everyone else uses mem.h.
#pragma once

#include <cstdint>

#include "utils/mem.h"
#include "utils/platform.h"

#define IMPLIES(a, b) (!(a) || (b))

namespace mem_account {

constexpr const char* kFacility = "MEMCONTEXT";
constexpr uint32_t kReservedFlags = KEST_MEM_USE_RESERVED | KEST_MEM_USE_RESERVED_ONLY;

// The process-wide state: the account, the list of roots, and the lock guarding both.
struct SystemState {
  MemSystemAccount account{};
  MemContext* roots = nullptr;
  Lock* lock = nullptr;
};
SystemState& sys();

const char* name_of(const MemContext* ctx);

// Holds the tree's lock for a scope when `when` is true.
class TreeLock {
 public:
  TreeLock(MemContext* ctx, bool when) {
    if (when) {
      lock_ = ctx->thread_safety->lock;
      lock_acquire(lock_);
    }
  }
  explicit TreeLock(MemContext* ctx)
      : TreeLock(ctx, ctx->thread_safety->need_to_lock || ctx->is_concurrent) {}
  ~TreeLock() {
    if (lock_) lock_release(lock_);
  }
  TreeLock(const TreeLock&) = delete;
  TreeLock& operator=(const TreeLock&) = delete;

 private:
  Lock* lock_ = nullptr;
};

// Holds the process-wide lock of the system-wide account and the list of roots for a scope.
class GlobalLock {
 public:
  GlobalLock() : lock_(sys().lock) { lock_acquire(lock_); }
  ~GlobalLock() { lock_release(lock_); }
  GlobalLock(const GlobalLock&) = delete;
  GlobalLock& operator=(const GlobalLock&) = delete;

 private:
  Lock* lock_;
};

struct Amounts {
  uint64_t mem = 0;
  uint64_t vm = 0;
};

// Limit check and accounting in one step under the tree's lock. On success `taken` is what came
// from the context's reservation and `granted` what the root drew from the system-wide account;
// both are needed to undo the step with unaccount. False, changing nothing, when a limit refuses.
bool charge(MemContext* ctx, Amounts req, uint32_t flags, Amounts* taken, Amounts* granted);
// Reverts a charge whose memory could not be obtained. REQUIRES: the tree's lock when it is used.
void unaccount(MemContext* ctx, Amounts req, Amounts taken, Amounts granted);
// Adds (or, with wrapped negative amounts, removes) memory to the context and its ancestors.
// REQUIRES: the tree's lock when it is used.
void account_up(MemContext* ctx, uint64_t memReq, uint64_t vmReq);
void raise_high_marks(MemContext* ctx);

}  // namespace mem_account
