#include "host/kernel/file_replacement.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace netsieve::host {

namespace {

bool SyncPath(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    const bool synced = fsync(file) == 0;
    const int reason = errno;
    close(file);
    errno = reason;
    return synced;
}

mode_t NewFileMode() {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

}  // namespace

FileReplacement::FileReplacement(const std::filesystem::path& path) {
    std::error_code error;
    path_ = std::filesystem::weakly_canonical(path, error);
    if (error) {
        path_ = path;
    }
    exists_ = stat(path_.c_str(), &noted_) == 0;
}

bool FileReplacement::readOnly() const {
    return exists_ && ((noted_.st_mode & 0222) == 0 ||
                       faccessat(AT_FDCWD, path_.c_str(), W_OK, AT_EACCESS) != 0);
}

bool FileReplacement::Unchanged() const {
    struct stat now {};
    if (stat(path_.c_str(), &now) != 0) {
        return !exists_;
    }
    return exists_ && now.st_ino == noted_.st_ino && now.st_dev == noted_.st_dev &&
           now.st_size == noted_.st_size && now.st_mtim.tv_sec == noted_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == noted_.st_mtim.tv_nsec;
}

bool FileReplacement::Fail(const char* action, std::string& error) const {
    error = fmt::format("cannot {} {}: {}; {}", action, path_.string(), std::strerror(errno),
                        exists_ ? "it is as it was before" : "it was not made");
    return false;
}

bool FileReplacement::WriteBeside(const std::string& beside,
                                  const std::function<bool(const std::string&)>& write,
                                  std::string& error) const {
    if (!write(beside)) {
        return Fail("write", error);
    }
    const mode_t mode = exists_ ? noted_.st_mode & 07777 : NewFileMode();
    if (exists_ && chown(beside.c_str(), noted_.st_uid, noted_.st_gid) != 0 && errno != EPERM) {
        return Fail("give the owner of", error);
    }
    if (chmod(beside.c_str(), mode) != 0 || !SyncPath(beside)) {
        return Fail("write", error);
    }
    if (!Unchanged()) {
        error = fmt::format("{} was changed by someone else in the meantime; it was not touched",
                            path_.string());
        return false;
    }
    return std::rename(beside.c_str(), path_.c_str()) == 0 || Fail("replace", error);
}

bool FileReplacement::Replace(const std::function<bool(const std::string&)>& write,
                              std::string& error) {
    std::string beside = path_.string() + ".XXXXXX";
    const int file = mkostemp(beside.data(), O_CLOEXEC);
    if (file < 0) {
        return Fail("write beside", error);
    }
    close(file);
    if (!WriteBeside(beside, write, error)) {
        unlink(beside.c_str());
        return false;
    }
    // The new file is in place; that its name survives a power cut is all that is left to do.
    SyncPath(path_.parent_path());
    exists_ = stat(path_.c_str(), &noted_) == 0;
    return true;
}

}  // namespace netsieve::host
