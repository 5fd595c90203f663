#ifndef TOOLS_PUBLISH_H_
#define TOOLS_PUBLISH_H_

#include <sys/types.h>

#include <string>

#include "tools/commands.h"

// Whether the daemon is there and `destination` could be published now. Says why not. Returns the
// exit status.
int check_destination(const Options& options, const std::string& destination);

// The same, and then publishes what can be read from `fd` and shows the answer. Returns the exit
// status; a signal leaves nothing behind.
int publish(const Options& options, int fd, const std::string& destination, mode_t mode);

// The mode that the user wants, or else one that gives nobody more than `mode` and the file that is
// there already do.
mode_t wanted_mode(const Options& options, mode_t mode, const std::string& destination);

// The mode that a program would give a new file.
mode_t mode_of_new_file();

#endif  // TOOLS_PUBLISH_H_
