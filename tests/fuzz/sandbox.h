#ifndef TESTS_FUZZ_SANDBOX_H_
#define TESTS_FUZZ_SANDBOX_H_

// A private mount namespace, where only the working directory stays writable beside empty file
// systems on /mnt, /run and /tmp. A canary directory lies outside the roots, and links to it lie in
// every root when it `plants_trees`: before the first input, then after every `runs_per_look`.
void enter_sandbox(bool plants_trees, unsigned runs_per_look);

// Starts an input: the daemon at its start as node 1 with the peer in the group, on trees that were
// planted some inputs ago.
void start_run(bool active);
void end_run();

// Aborts when anything outside the roots was changed, or a file there was read. Called after every
// `runs_per_look` inputs and at the end of the program.
void look_at_world();

#endif  // TESTS_FUZZ_SANDBOX_H_
