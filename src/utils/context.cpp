#include "utils/context.h"

#include "utils/kest_error.h"
#include "utils/mem.h"
#include "utils/platform.h"
#include "utils/znlog.h"

namespace {

constexpr const char* kFacility = "ERROR";

// Turns the remembered KEST_OK record into the new error when no new record can be made.
KestError* reuse_ok_record(KestError* ok, int32_t code, int32_t count) {
  ZN_LOG(kFacility, ZN_DEBUG, "add_error: reusing existing KEST_OK");
  ok->code = code;
  ok->num_err_params = 0;
  ok->next = nullptr;
  if (count > 0) ZN_LOG(kFacility, ZN_DEBUG, "add_error: not adding parameters");
  return ok;
}

void log_error_text(QueryContext* context, const char* facility, const KestError* error) {
  if (!zn_log_enabled(facility, ZN_DEBUG)) return;
  char* text = kest_error_text(context->mem, error);
  ZN_LOG(facility, ZN_DEBUG, "%s", text);
  if (text != KEST_ERROR_NO_MEMORY_TEXT) mem_free(context->mem, text);
}

void append(QueryContext* context, KestError* error) {
  KestError** tail = &context->errors;
  while (*tail) tail = &(*tail)->next;
  *tail = error;
}

}  // namespace

QueryContext* query_context_create(MemContext* parent) {
  Lock* lock = lock_create();
  if (!lock) return nullptr;
  return new QueryContext{mem_context_create(parent, "query context"), lock, true, nullptr};
}

void query_context_destroy(QueryContext* ctx) {
  if (!ctx) return;
  mem_context_destroy(ctx->mem);
  lock_destroy(ctx->lock);
  delete ctx;
}

void add_error_v(QueryContext* context, const char* facility, int32_t code, int32_t count,
                 va_list params) {
  if (!context || !context->collect_errors) return;
  LockGuard guard(context->lock);
  KestError* ok = nullptr;
  if (context->errors && context->errors->code == KEST_OK) {
    ok = context->errors;
    context->errors = nullptr;
  }
  KestError* error = kest_error_create(context->mem, code, count);
  if (error) {
    for (int32_t i = 0; i < count; ++i) {
      kest_error_set_param(error, context->mem, i, va_arg(params, const char*));
    }
  } else {
    ZN_LOG(kFacility, ZN_DEBUG, "add_error: failed to allocate memory");
    if (!ok) return;
    error = reuse_ok_record(ok, code, count);
  }
  append(context, error);
  log_error_text(context, facility, error);
}

void add_error(QueryContext* context, const char* facility, int32_t code, int32_t count, ...) {
  va_list params;
  va_start(params, count);
  add_error_v(context, facility, code, count, params);
  va_end(params);
}

int add_error_ret(QueryContext* context, const char* facility, int32_t code, int32_t count, ...) {
  va_list params;
  va_start(params, count);
  add_error_v(context, facility, code, count, params);
  va_end(params);
  return 1;
}
