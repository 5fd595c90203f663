#ifndef TESTS_FUZZ_SANDBOX_H_
#define TESTS_FUZZ_SANDBOX_H_

// Enters a private mount namespace in which only the working directory and empty file systems on
// /mnt, /run and /tmp are writable. A canary directory is outside the roots. With `plants_trees`,
// symlinks to it are in every root: before the first input, and again after every `runs_per_look`.
void enter_sandbox(bool plants_trees, unsigned runs_per_look);

// Starts an input: the daemon after its start as node 1, with the peer in the group, on trees that
// were planted some inputs ago.
void start_run(bool active);
void end_run();

// Aborts if anything outside the roots was changed or a file there was read. Called after every
// `runs_per_look` inputs and at the end of the program.
void look_at_world();

#endif  // TESTS_FUZZ_SANDBOX_H_
