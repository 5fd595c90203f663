"""python3 tests/sim/planted.py [WORD...]: faults planted in a copy of the daemon, one at a time, and
which instrument finds each.

The table is matched by text, so that it follows the sources; an entry whose text is no longer there
fails. With WORDs only the entries that have one of them in their name.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import NamedTuple

REPO = Path(__file__).resolve().parents[2]
RUNS, POINTS = "500", "800"  # within which a fault is found: two minutes on two idle processors
SOURCES = ("CMakeLists.txt", "CMakePresets.json", "bench", "client", "platform", "redundancy_health",
           "tests", "tools", "testbed", "docs")


class Fault(NamedTuple):
    name: str
    file: str
    old: str
    new: str
    found_by: str = "simulation"  # or "faults"; anything else is what else finds it


STATES = "exchange/state_machine.cc"
OUTCOME = "transport/exchange_outcome.cc"
LOOP = "transport/sync_thread.cc"
INCOMING = "transfer/incoming.cc"
REQUESTS = "exchange/local_request.cc"
FAULTS = (
    Fault("a release that is not awaited", OUTCOME, "ctx->cur_state = ST_DONE;",
          "ctx->cur_state = ST_UNLOCKED;"),
    Fault("a newcomer forgotten", STATES, "newcomer\n    request_initial_sync(ctx);", "newcomer"),
    Fault("a newcomer forgotten in ST_DONE", STATES,
          "case ST_DONE:\n      request_initial_sync(ctx);", "case ST_DONE:"),
    Fault("a deferred request dropped", LOOP, "ctx->rpc_deferred = 1;", "ctx->rpc_deferred = 0;"),
    Fault("an exchange id that is not checked", "transport/cpg_message.cc",
          "if (exchange_id != expected)", "if (exchange_id == UINT32_MAX)"),
    Fault("a sequence id that is not checked", "transport/cpg_message.cc",
          "*sequence_id != ctx->cur_sequence_id", "*sequence_id == UINT32_MAX"),
    Fault("a resync that is not armed", OUTCOME, "    arm_resync(ctx);\n", ""),
    Fault("a success with a peer that has left", OUTCOME,
          "(ctx->cpg_membership_flags & kPeerMember) != 0 ? uint32_t{'Y'} : 'N'", "'Y'"),
    Fault("rights of another moment", STATES,
          "ctx->cur_exchange_em_is_active = this_em_is_active();\n  ctx->cur_sequence_id",
          "ctx->cur_sequence_id"),
    Fault("rights that are not asked for", STATES,
          "  fail_change_without_rights(ctx);\n  CHECKPOINT(ctx);\n  if (", "  if ("),
    Fault("a listing cut short", "exchange/listing.cc", "listing,\n                     total_size);",
          "listing,\n                     total_size / 2);"),
    Fault("digests that outlive the file replaced here", REQUESTS,
          "if (error == 0) remove_digest_file(*destination, request.destination);", ""),
    Fault("digests that outlive the file replaced there", INCOMING,
          "{\n  remove_digest_file(file, local->path);\n", "{\n"),
    Fault("a lock that two hold", STATES,
          "case ST_LOCKREQ:\n      if (event.from_self) {", "case ST_LOCKREQ:\n      if (true) {"),
    Fault("an early release that is taken", STATES, "ctx->cur_state == ST_DONE) {",
          "ctx->cur_state == ST_DONE || ctx->cur_state == ST_LISTREQ) {"),
    Fault("another exchange's success", OUTCOME,
          "if (ctx->rpc_deferred || ctx->cpg_result.success) break;", ""),
    Fault("a caller that is not woken", OUTCOME,
          "CHECK_ZERO(pthread_cond_broadcast(&ctx->rpc_cond));", ""),
    Fault("a departure that ends nothing", STATES,
          "ctx->state_time = get_uptime();\n  end_exchange(ctx);", "ctx->state_time = get_uptime();"),
    Fault("membership that is never lost", LOOP, "ctx->cpg_membership_flags = flags;",
          "ctx->cpg_membership_flags = flags | (ctx->cpg_membership_flags & kPeerMember);"),
    Fault("a chunk at the wrong place", INCOMING, "lseek(fd, update.header.begin_offs, SEEK_SET)",
          "lseek(fd, 0, SEEK_SET)"),
    Fault("a file that does not shrink", INCOMING,
          "ftruncate(fd, update.header.file_size) != 0 ||\n      ", ""),
    Fault("a deletion not made here", "exchange/reconcile.cc",
          "if (!comparison.lines_dropped) delete_local_copy(ctx, deletions, entry);", ""),
    Fault("a deletion not asked for", "exchange/reconcile.cc",
          "entry->update_type = PUSH_DEL_REQ;", "entry->update_type = PUSH_NOP;"),
    Fault("no time limit", LOOP, "elapsed > kShortTimeout", "elapsed > 1000 * kShortTimeout"),
    Fault("an initial exchange that is not taken up", STATES,
          "(stage == RPC_PENDING || stage == RPC_LOCAL_BUSY)", "(stage == RPC_PENDING)"),
    Fault("a resync that waits for nobody", LOOP, "begun ? kResyncDelay : 1;",
          "begun ? kResyncDelay : -1;"),
    Fault("a peer's failure that is not looked at", STATES, "if (!event.header->result.success)",
          "if (event.header->result.success > 1)", "faults"),
    Fault("a pull that failed", INCOMING, "if (!result.success) {  // no answer carries it",
          "if (result.success > 1) {", "faults"),
    Fault("a temporary that stays", "../platform/storage.cc", "    unlinkat(handle->dir_fd,",
          "    if (error == 0) unlinkat(handle->dir_fd,", "faults"),
    Fault("a directory that is not synced", REQUESTS, "if (fsync(file.dir_fd()) == 0) return true;",
          "return true;", "DurabilityTest, the power cuts"),
)


def build(copy: Path, *targets: str) -> None:
    subprocess.run(["cmake", "--build", str(copy / "build"), "--target", *targets], check=True,
                   capture_output=True)


def finds(copy: Path, instrument: str) -> str:
    """The first line of what an instrument says of the copy, or nothing within the limit."""
    argv = {"simulation": ["tests/sim", "--runs", RUNS], "faults": ["tests/faults", "--points", POINTS]}
    output = subprocess.run([sys.executable, *argv[instrument], "--seed", "1", "--first"], cwd=copy,
                            text=True, capture_output=True,
                            env=os.environ | {"EM_PAIR_BUILD": copy / "build"})
    lines = [line for line in output.stdout.splitlines()[1:] if line.strip()]
    return lines[0].strip() if output.returncode else ""


def examine(copy: Path, fault: Fault) -> bool:
    path = copy / "redundancy_health" / fault.file
    text = path.read_text()
    if text.count(fault.old) != 1:
        print(f"   FAILED  {fault.name}: its text stands {text.count(fault.old)} times", flush=True)
        return False
    path.write_text(text.replace(fault.old, fault.new))
    try:
        build(copy, "cluster_sync_daemon")
        built = time.monotonic()
        instruments = [fault.found_by] if fault.found_by in ("simulation", "faults") else []
        wrong = next(filter(None, (finds(copy, instrument) for instrument in instruments)), "")
    except subprocess.CalledProcessError as error:
        print(f"   FAILED  {fault.name}: does not build\n{error.stdout.decode()[-2000:]}", flush=True)
        return False
    finally:
        path.write_text(text)
    outcome = "ok    " if wrong or not instruments else "FAILED"
    print(f"   {outcome}  {fault.name} ({fault.found_by}, {time.monotonic() - built:.0f} s): {wrong}",
          flush=True)
    return outcome != "FAILED"


def main(words: list[str]) -> int:
    chosen = [fault for fault in FAULTS if not words or any(word in fault.name for word in words)]
    with tempfile.TemporaryDirectory(prefix="planted.") as folder:
        copy = Path(folder)
        for name in SOURCES:
            source = REPO / name
            (shutil.copytree if source.is_dir() else shutil.copy)(source, copy / name)
        subprocess.run(["cmake", "--preset", "default"], cwd=copy, check=True, capture_output=True)
        build(copy, "cluster_sync_daemon", "cluster_sync_ctl", "sim_group")
        passed = sum(examine(copy, fault) for fault in chosen)
    print(f"{passed} passed, {len(chosen) - passed} failed")
    return 0 if passed == len(chosen) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
