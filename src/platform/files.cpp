#include "platform/files.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quillon::platform {
namespace {

// Owns a file descriptor.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }

 private:
  int fd_;
};

bool WriteAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool LockFirstByte(int fd, short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 1;
  while (::fcntl(fd, F_SETLKW, &fl) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

}  // namespace

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* out, size_t max_size) {
  out->clear();
  Fd fd(::open(MapDevicePath(path).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.ok()) return false;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return false;
  if (S_ISDIR(st.st_mode)) return false;
  if (st.st_size > 0) {
    if (static_cast<uint64_t>(st.st_size) > max_size) return false;
    out->reserve(static_cast<size_t>(st.st_size));
  }
  uint8_t chunk[65536];
  for (;;) {
    const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      out->clear();
      return false;
    }
    if (n == 0) break;
    if (out->size() + static_cast<size_t>(n) > max_size) {
      out->clear();
      return false;
    }
    out->insert(out->end(), chunk, chunk + n);
  }
  return true;
}

bool WriteFileAtomic(const std::string& path, const uint8_t* data, size_t size, bool lock,
                     unsigned mode) {
  Fd lock_fd(lock ? ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode) : -1);
  if (lock && (!lock_fd.ok() || !LockFirstByte(lock_fd.get(), F_WRLCK))) return false;
  static std::atomic<unsigned> counter{0};
  const std::string tmp = path + ".tmp." + std::to_string(::getpid()) + "." +
                          std::to_string(counter.fetch_add(1));
  {
    Fd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd.ok()) return false;
    if (::fchmod(fd.get(), mode) != 0 || !WriteAll(fd.get(), data, size) ||
        ::fsync(fd.get()) != 0) {
      ::unlink(tmp.c_str());
      return false;
    }
  }
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    ::unlink(tmp.c_str());
    return false;
  }
  return true;  // the lock, if any, is released when lock_fd closes
}

bool AppendToFile(const std::string& path, const std::vector<std::string>& pieces) {
  Fd fd(::open(MapDevicePath(path).c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
  if (!fd.ok()) return false;
  for (const auto& p : pieces) {
    if (!WriteAll(fd.get(), reinterpret_cast<const uint8_t*>(p.data()), p.size())) return false;
  }
  return true;
}

bool MakeOwnerOnly(const std::string& path) { return ::chmod(path.c_str(), 0600) == 0; }

bool FileExists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

bool RenameFile(const std::string& from, const std::string& to) {
  return ::rename(from.c_str(), to.c_str()) == 0;
}

bool RemoveFile(const std::string& path) { return ::unlink(path.c_str()) == 0; }

const char* NullDevicePath() { return "/dev/null"; }

std::string MapDevicePath(const std::string& path) {
  if (path == "NUL") return NullDevicePath();
  return path;
}

unsigned long ProcessId() { return static_cast<unsigned long>(::getpid()); }

}  // namespace quillon::platform
