#include "platform/event.h"

#include <stdio.h>
#include <sys/stat.h>

#include "platform/storage.h"

int event_send(uint32_t event, const void* record, uint32_t size) {
  char path[64];
  snprintf(path, sizeof path, kEventFileFormat, event);
  StorageHandle* file = nullptr;
  if (storage_open(0, path, kStorageOpenWrite, &file) != 0) {
    // Directories that are missing are made; any other failure shows again.
    mkdir("/var/run/em", 0755);
    mkdir("/var/run/em/events", 0755);
    if (storage_open(0, path, kStorageOpenWrite, &file) != 0) return -1;
  }
  // After a failed write the close reports that failure.
  storage_write_all(file, record, size);
  return storage_close(file);
}
