#ifndef TESTS_FUZZ_SANDBOX_H_
#define TESTS_FUZZ_SANDBOX_H_

// A private mount namespace, where only the working directory stays writable beside empty file
// systems on /mnt, /run and /tmp. A canary directory lies outside the roots, and links to it lie in
// every root.
void enter_sandbox();

// Starts an input: the planted trees, the daemon at its start as node 1 with the peer in the group.
void start_run(bool active);
// Ends it: aborts when anything outside the roots was changed, or a file there was read.
void end_run();

#endif  // TESTS_FUZZ_SANDBOX_H_
