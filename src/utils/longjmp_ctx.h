// Non-local exit contexts: per-thread saved jump environments used as exception environments
// (a memory context jumps to its environment with code 2 when memory runs out).
//
// A thread arms a node in the frame that must survive the jump:
//
//   LongJmpScope scope(ljc);              // registers the node for this thread
//   if (LONGJMP_CTX_SETJMP(scope) == 0) {
//     ... work that may call longjmp_ctx_jump(ljc, code) ...
//   } else {
//     ... scope.code() tells why ...
//   }                                     // the scope's end removes the node
//
// Rules of setjmp/longjmp that bind every user:
// - setjmp must run in the frame that stays alive until the jump: hence the macro; a function
//   that called setjmp and has returned cannot be jumped to.
// - No C++ frame with a non-trivial destructor (RAII locks, std::string, containers...) may lie
//   between the frame that called setjmp and the jump: longjmp skips destructors.
// - Locals of the setjmp frame changed after setjmp must be volatile to be read after the jump.
// - A node serves exactly one jump; jumping again through it aborts.
#pragma once

#include <csetjmp>
#include <cstdint>

struct Lock;

struct LongJmpNode {
  uint32_t thread_id;
  std::jmp_buf env;
  LongJmpNode* next;
  int jumped;  // set by the jump; a node serves one jump
  int code;    // the code passed to the jump
};

struct LongJmpCtx {
  Lock* lock;  // guards the node list
  LongJmpNode* nodes;
};

// Null when the lock cannot be made. Destroy requires every node to be removed.
LongJmpCtx* longjmp_ctx_create();
void longjmp_ctx_destroy(LongJmpCtx* ljc);  // null is ignored

// Adds `node` (owned by the caller, alive until removed) for the calling thread. The most recent
// registration of a thread is the one a jump finds, so registrations nest.
void longjmp_ctx_register(LongJmpCtx* ljc, LongJmpNode* node);
void longjmp_ctx_unregister(LongJmpCtx* ljc, LongJmpNode* node);

// Jumps to the calling thread's most recent node with `code` (non-zero). Aborts with
// "ljc != NULL" when the context is null or the thread has no node, and with
// "ljc->jumped == FALSE" when the node has already served a jump.
[[noreturn]] void longjmp_ctx_jump(LongJmpCtx* ljc, int code);

// Registers a node for the calling thread for the lifetime of the scope.
class LongJmpScope {
 public:
  explicit LongJmpScope(LongJmpCtx* ljc) : ljc_(ljc) { longjmp_ctx_register(ljc_, &node_); }
  ~LongJmpScope() { longjmp_ctx_unregister(ljc_, &node_); }
  LongJmpScope(const LongJmpScope&) = delete;
  LongJmpScope& operator=(const LongJmpScope&) = delete;

  LongJmpNode& node() { return node_; }
  bool jumped() const { return node_.jumped != 0; }
  int code() const { return node_.code; }

 private:
  LongJmpCtx* ljc_;
  LongJmpNode node_{};
};

// setjmp on the scope's node; 0 when armed, non-zero after a jump.
#define LONGJMP_CTX_SETJMP(scope) setjmp((scope).node().env)
