#include "computer/package/file_package.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <new>
#include <stdexcept>

namespace qm5 {
namespace {

#ifdef Q_OS_MACOS
constexpr std::string_view kFromExecutable = "/../Resources/";
#else
constexpr std::string_view kFromExecutable = "/../share/qm5-updater/";
#endif

FileError errorOf(const QFile& file) {
  return {file.errorString().toStdString()};
}

FileContents readToEnd(QFile& file) {
  // One byte more than the file had when it was opened: a short read then shows its end.
  Bytes contents(static_cast<std::size_t>(file.size()) + 1);
  std::size_t filled = 0;
  while (true) {
    const qint64 count = file.read(reinterpret_cast<char*>(contents.data() + filled),
                                   static_cast<qint64>(contents.size() - filled));
    if (count < 0) return errorOf(file);
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
    if (filled == contents.size()) contents.resize(2 * filled);  // it is being written to
  }
  contents.resize(filled);
  return contents;
}

}  // namespace

std::optional<std::string> FilePackage::pathForResource(std::string_view name,
                                                        std::string_view extension) {
  std::string path = QCoreApplication::applicationDirPath().toStdString();
  path.append(kFromExecutable).append(name).append(".").append(extension);
  const QString cleaned = QDir::cleanPath(QString::fromStdString(path));
  if (!QFileInfo::exists(cleaned)) return std::nullopt;
  return cleaned.toStdString();
}

FileContents FilePackage::readFile(const std::string& path) {
  QFile file(QString::fromStdString(path));
  const QFileInfo info(file);
  if (info.isDir()) return FileError{"Is a directory"};
  // Opening a FIFO would wait for someone to write to it.
  if (info.exists() && !info.isFile()) return FileError{"Not a regular file"};
  if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) return errorOf(file);
  try {
    return readToEnd(file);
  } catch (const std::bad_alloc&) {
    return FileError{"Cannot allocate memory"};
  } catch (const std::length_error&) {
    return FileError{"File too large"};
  }
}

}  // namespace qm5
