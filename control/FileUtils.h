#pragma once

#include <cstddef>
#include <cstdint>

// File helpers kept beside the profile files; nothing in the daemon calls them at present.

// CRC-32 of IEEE 802.3, continued from crc (0 to start).
uint32_t rc_crc32(uint32_t crc, const char* buf, size_t len);
// Copies source over target in chunks of chunkSize bytes (65536 when 0); the target is not
// truncated. The last read result (0 after a complete copy), or -1.
int copy_files_in_fs(const char* target, const char* source, size_t chunkSize);
// Reads the whole file into buf, which must be large enough; 0, or -1 when it cannot be opened
// or sized.
int get_file_content(const char* path, char* buf);
