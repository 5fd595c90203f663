"""A disk with a volatile write cache: volatile_disk.py DIRECTORY BYTES, in the foreground.

DIRECTORY/disk behaves like a disk: flushed data (fsync) is kept, other data is in its cache. Writing "SEED
SHARE" to DIRECTORY/cut is a power failure. Each block in the cache has reached the medium with probability
SHARE, drawn by SEED; the others are lost. Processes that have the disk open can no longer access it.
"""

import errno
import random
import stat
import sys

from fusepy import FUSE, FuseOSError, Operations

BLOCK = 4096


class VolatileDisk(Operations):
    def __init__(self, size: int):
        self.medium = bytearray(size)
        self.cache: dict[int, bytes] = {}  # by offset
        self.generation = 1  # of handles that can still access the disk

    def getattr(self, path, fh=None):
        if path == "/":
            return {"st_mode": stat.S_IFDIR | 0o755, "st_nlink": 2}
        if path not in ("/disk", "/cut"):
            raise FuseOSError(errno.ENOENT)
        return {"st_mode": stat.S_IFREG | 0o600, "st_nlink": 1,
                "st_size": len(self.medium) if path == "/disk" else 0}

    def open(self, path, flags):
        return self.generation

    def truncate(self, path, length, fh=None):
        pass

    def read(self, path, size, offset, fh):
        begin = offset // BLOCK * BLOCK
        end = min(offset + size, len(self.medium))
        return b"".join(self._block(at) for at in range(begin, end, BLOCK))[offset - begin:][
            :end - offset]

    def _block(self, at: int) -> bytes:
        return self.cache.get(at) or bytes(self.medium[at:at + BLOCK])

    def write(self, path, data, offset, fh):
        if path == "/cut":
            self._cut(*data.split())
        elif fh == self.generation:
            done = 0
            while done < len(data):
                at = (offset + done) // BLOCK * BLOCK
                skip = offset + done - at
                part = data[done:done + BLOCK - skip]
                old = self._block(at) if len(part) < BLOCK else b""
                self.cache[at] = old[:skip] + part + old[skip + len(part):]
                done += len(part)
        return len(data)

    def fsync(self, path, datasync, fh):
        if fh == self.generation:
            self._keep(self.cache)

    def _keep(self, blocks) -> None:
        for at in blocks:
            self.medium[at:at + BLOCK] = self.cache[at]
        self.cache = {}

    def _cut(self, seed: bytes, share: bytes) -> None:
        chance = random.Random(int(seed))
        self._keep([at for at in sorted(self.cache) if chance.random() < float(share)])
        self.generation += 1


if __name__ == "__main__":
    FUSE(VolatileDisk(int(sys.argv[2])), sys.argv[1], foreground=True, nothreads=True,
         direct_io=True, big_writes=True)
