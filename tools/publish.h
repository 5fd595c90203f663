#ifndef TOOLS_PUBLISH_H_
#define TOOLS_PUBLISH_H_

#include <sys/types.h>

#include <string>

#include "tools/commands.h"

// Checks whether the daemon answers and `destination` can be published now, and prints why not.
// Returns the exit status.
int check_destination(const Options& options, const std::string& destination);

// The same; then publishes the bytes read from `fd` and prints the answer. Returns the exit status.
// After a signal no temporary file is left.
int publish(const Options& options, int fd, const std::string& destination, mode_t mode);

// The mode given by the user. Otherwise a mode that grants no more than `mode` and the existing
// destination both do.
mode_t wanted_mode(const Options& options, mode_t mode, const std::string& destination);

// The mode of a new file under the umask.
mode_t mode_of_new_file();

#endif  // TOOLS_PUBLISH_H_
