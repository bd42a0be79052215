// File access for the whole library: every open/read/write/rename/lock of a
// file goes through here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quillon::platform {

// Reads the whole file at |path| (UTF-8). False when it cannot be opened or
// read, or is larger than |max_size|; |out| is then empty.
[[nodiscard]] bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* out,
                                 size_t max_size = size_t{1} << 30);

// Replaces the file at |path| with |data| so that a crash leaves either the
// old or the new content: the bytes go to a temporary file in the same
// directory, which is flushed to disk and renamed over |path|. With |lock|,
// an exclusive lock on the first byte of the existing file is held while
// the new one is written, so that two writers do not interleave. |mode| is
// the permission of the new file. False, old file untouched, on any failure.
[[nodiscard]] bool WriteFileAtomic(const std::string& path, const uint8_t* data, size_t size,
                                   bool lock, unsigned mode = 0644);

// Appends |pieces| to the file at |path| (created with read/write permission
// for everyone the umask allows), opening and closing it for this one call.
// False when it cannot be opened.
bool AppendToFile(const std::string& path, const std::vector<std::string>& pieces);

// Makes the file readable and writable by its owner only.
bool MakeOwnerOnly(const std::string& path);

bool FileExists(const std::string& path);
bool RenameFile(const std::string& from, const std::string& to);
bool RemoveFile(const std::string& path);

// The path that discards what is written to it ("NUL" in the library's terms).
const char* NullDevicePath();
// Maps the library's device name "NUL" to the null device; other paths as given.
std::string MapDevicePath(const std::string& path);

unsigned long ProcessId();

}  // namespace quillon::platform
