#include "redundancy_health/transfer/exchange_notes.h"

#include <stdlib.h>
#include <string.h>

#include "platform/em.h"
#include "redundancy_health/frame/log.h"
#include "redundancy_health/transfer/replaced_files.h"

void note_deletion(SyncContext* ctx, const char* path) {
  if (ctx->notes.n_deleted++ != 0) return;
  ctx->notes.first_deleted = strdup(path);
  CHECK_NOT_NULL(ctx->notes.first_deleted);
}

void note_shared_change(SyncContext* ctx, const char* path) {
  if (read_rpc_stage(ctx) == RPC_PENDING) ctx->change_overtaken = 1;
  if (ctx->notes.shared_change) return;
  ctx->notes.shared_change = 1;
  ctx->both_active = this_em_is_active();
  if (ctx->both_active) {
    LOG_NO_DUMP(3, "The other EM is active, too: it has changed '%s'", path);
  }
}

void close_notes(SyncContext* ctx) {
  ExchangeNotes* notes = &ctx->notes;
  if (notes->n_deleted != 0) {
    LOG(4, "Deleted %u files which the other EM no longer has, first '%s'", notes->n_deleted,
        notes->first_deleted);
  }
  if (!notes->shared_change) ctx->both_active = 0;
  close_kept();
  free(notes->first_deleted);
  *notes = {};
}
