// Small shared routines: checksums, wide and narrow text, an interruptible sleep, directories and
// the lock file. Nothing here logs; all functions may be called on any thread. Strings that are
// returned belong to the caller, who frees them with free(); null means out of memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>

/// Builds the CRC table. The checksum functions call it themselves; later calls do nothing.
void crc_init();

/// Returns the common CRC-32 (reflected, polynomial 0xEDB88320) of exactly 256 bytes.
uint32_t computeChecksum(const char *bytes);

/// Returns the common CRC-32 of `size` bytes.
uint32_t checksum_bytes(const void *bytes, size_t size);

/// Returns the CRC-32 of 256 bytes of an open file, read at offset 0 when `seek` is 0 and at
/// `seek` - 257 otherwise; bytes that cannot be read count as zeros, and where that offset is
/// negative the read happens at the current position. The stream's position is unchanged.
uint32_t calculateCRC(FILE *fd, long seek);

/// Narrow copy of a wide string in the encoding of the current locale. A character that the
/// locale cannot express is written as UTF-8. Null gives null.
char *wstrtostr(const wchar_t *source);

/// Wide copy of the first `length` characters of a narrow string (fewer when it ends earlier),
/// terminated, with room for `length` + 1 wide characters. Bytes that do not decode in the current
/// locale become characters of a private range that wstrtostr() turns back into the same bytes, so
/// that any text survives the way there and back. Null gives null.
wchar_t *strtowstr(const char *source, int length);

/// Wide copy of exactly `size` bytes, NUL bytes included, decoded as by strtowstr(). *length, when
/// not null, receives the number of wide characters before the terminator.
wchar_t *bytes_to_wide(const char *source, size_t size, size_t *length);

/// Sleeps `sec` seconds in steps of one second; returns early as soon as is_executing() is false.
void safe_sleep(int sec);

/// Creates a directory (mode 0755) and its missing parents. Returns 0 also when anything already
/// exists under that name, -1 on failure with errno set.
int create_dirx(const char *name);

/// create_dirx() for a wide path; null gives -1.
int create_dir(const wchar_t *filename);

/// Takes the lock file that keeps a second instance away; on failure prints why on standard error
/// and ends the process with status 1. Main thread only.
void obtain_lockfile();

/// obtain_lockfile() on another path.
void obtain_lockfile_at(const char *path);

/// Unlocks and closes the lock file; the file itself stays. Without a lock it does nothing.
void release_lockfile();
