#include "agent/agent_exchange.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>

#include "shared/files.h"
#include "shared/json.h"

namespace fs = std::filesystem;

namespace vumo {

namespace {

using Case = EditPlanValidationError::Case;

constexpr const char* rootFolderName = "AgentExchange";

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }

 private:
  int fd_;
};

[[noreturn]] void invalidDocument() { throw EditPlanValidationError(Case::invalidDocument); }

[[noreturn]] void fileFailure(std::string_view action, const fs::path& path, int error) {
  throw FileError(fmt::format("Could not {} {}: {}", action, path.string(), std::strerror(error)));
}

// An open that failed: a bad document, unless the system failed (then the document may be fine).
[[noreturn]] void refuseOpen(const fs::path& path, int error) {
  if (isSystemFailure(error)) fileFailure("open", path, error);
  invalidDocument();
}

// A single name that stays inside the folder it is looked up in.
bool isPlainName(const fs::path& name) {
  return !name.empty() && name != "." && name != ".." && !name.has_parent_path();
}

struct ExchangeRoot {
  Descriptor folder;
  fs::path path;          // as exchangeRootDirectory() spells it
  fs::path resolvedPath;  // the same with the links above the root resolved
};

// Opens the root without following a link at the root itself. Links above it (a home folder that
// is itself a link, as some distributions set up) belong to the user's system, not to an agent,
// and are resolved once.
ExchangeRoot openExchangeRoot(bool create) {
  fs::path support = vumoSupportDirectory();
  if (create) createDirectories(support);
  std::error_code error;
  fs::path resolvedSupport = fs::canonical(support, error);
  if (error) invalidDocument();
  Descriptor supportFolder(::open(resolvedSupport.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!supportFolder.isOpen()) {
    if (create) fileFailure("open", resolvedSupport, errno);
    refuseOpen(resolvedSupport, errno);
  }
  if (create && ::mkdirat(supportFolder.get(), rootFolderName, 0777) != 0 && errno != EEXIST)
    fileFailure("create", resolvedSupport / rootFolderName, errno);
  Descriptor root(::openat(supportFolder.get(), rootFolderName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!root.isOpen()) refuseOpen(resolvedSupport / rootFolderName, errno);
  return {std::move(root), exchangeRootDirectory().lexically_normal(), resolvedSupport / rootFolderName};
}

}  // namespace

fs::path exchangeRootDirectory() { return vumoSupportDirectory() / rootFolderName; }

fs::path createExchangeJobDirectory(const Uuid& jobID) {
  ExchangeRoot root = openExchangeRoot(true);
  std::string name = jobID.string();
  // Without parents, and failing on an existing entry of any kind: a job folder is never reused.
  if (::mkdirat(root.folder.get(), name.c_str(), 0777) != 0) {
    if (errno == EEXIST) invalidDocument();
    fileFailure("create", root.path / name, errno);
  }
  return root.path / name;
}

std::string readExchangeData(const fs::path& path, std::uint64_t maximumBytes, EditPlanValidationError::Case oversize) {
  std::error_code error;
  fs::path absolute = path.is_absolute() ? path : fs::absolute(path, error);
  if (error) invalidDocument();
  fs::path file = absolute.lexically_normal();
  fs::path fileName = file.filename();
  fs::path folder = file.parent_path();
  fs::path folderName = folder.filename();
  if (!isPlainName(fileName) || !isPlainName(folderName)) invalidDocument();

  ExchangeRoot root = openExchangeRoot(false);
  fs::path parentOfFolder = folder.parent_path();
  if (parentOfFolder != root.path && parentOfFolder != root.resolvedPath) invalidDocument();

  Descriptor jobFolder(
      ::openat(root.folder.get(), folderName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!jobFolder.isOpen()) refuseOpen(folder, errno);
  // Non-blocking, so that a FIFO planted under the name cannot stall the open.
  Descriptor document(
      ::openat(jobFolder.get(), fileName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!document.isOpen()) refuseOpen(file, errno);

  struct stat status {};
  if (::fstat(document.get(), &status) != 0) invalidDocument();
  // A second hard link would be a way to reach a file that lives elsewhere.
  if (!S_ISREG(status.st_mode) || status.st_nlink != 1) invalidDocument();
  if (status.st_size < 0 || static_cast<std::uint64_t>(status.st_size) > maximumBytes)
    throw EditPlanValidationError(oversize);

  // The file may grow after the check: read one byte past the limit at most, and refuse if it
  // arrives.
  std::uint64_t readLimit = maximumBytes == std::numeric_limits<std::uint64_t>::max() ? maximumBytes : maximumBytes + 1;
  std::string bytes;
  bytes.reserve(
      static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(status.st_size), maximumBytes)));
  char buffer[65536];
  while (bytes.size() < readLimit) {
    std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(sizeof buffer, readLimit - bytes.size()));
    ssize_t count = ::read(document.get(), buffer, wanted);
    if (count < 0) {
      if (errno == EINTR) continue;
      fileFailure("read", file, errno);
    }
    if (count == 0) break;
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
  if (bytes.size() > maximumBytes) throw EditPlanValidationError(oversize);
  return bytes;
}

std::string readEditPlanData(const fs::path& path) {
  return readExchangeData(path, editPlanMaximumBytes, EditPlanValidationError::Case::documentTooLarge);
}

std::string readEditPlanJobData(const fs::path& path) {
  return readExchangeData(path, exchangeJobMaximumBytes, EditPlanValidationError::Case::invalidDocument);
}

void writeExchange(const Json& document, const fs::path& path) { writeFileAtomically(path, encodeDocument(document)); }

}  // namespace vumo
