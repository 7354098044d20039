#include "app_shell/qt/resource_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QCoreApplication>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace qm5 {

namespace {

#ifdef Q_OS_MACOS
constexpr std::string_view kFromExecutable = "/../Resources/";
#else
constexpr std::string_view kFromExecutable = "/../share/qm5-updater/";
#endif

class OpenFile {
 public:
  // Without O_NONBLOCK, opening a FIFO would wait for someone to write to it.
  explicit OpenFile(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
  ~OpenFile() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  bool isOpen() const { return descriptor_ >= 0; }
  int descriptor() const { return descriptor_; }

 private:
  int descriptor_;
};

FileError systemError(int code) {
  return {std::generic_category().message(code)};
}

FileContents readToEnd(int descriptor, std::size_t expected) {
  Bytes contents(expected + 1);  // the one byte more shows the end without another round
  std::size_t filled = 0;
  while (true) {
    const ssize_t count = ::read(descriptor, contents.data() + filled, contents.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return systemError(errno);
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
    if (filled == contents.size()) contents.resize(2 * filled);  // it is being written to
  }
  contents.resize(filled);
  return contents;
}

}  // namespace

std::optional<std::string> resourcePath(std::string_view name, std::string_view extension) {
  std::string path = QCoreApplication::applicationDirPath().toStdString();
  path.append(kFromExecutable).append(name).append(".").append(extension);
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) return std::nullopt;
  return std::filesystem::path(path).lexically_normal().string();
}

FileContents readRegularFile(const std::string& path) {
  const OpenFile file(path);
  if (!file.isOpen()) return systemError(errno);
  struct stat status {};
  if (::fstat(file.descriptor(), &status) != 0) return systemError(errno);
  if (S_ISDIR(status.st_mode)) return systemError(EISDIR);
  if (!S_ISREG(status.st_mode)) return FileError{"Not a regular file"};
  return readToEnd(file.descriptor(), static_cast<std::size_t>(status.st_size));
}

}  // namespace qm5
