// Changing a file so that it is never seen half written.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>

namespace netsieve::host {

/// Replaces a file: the new one is written beside it, brought to the disk and renamed into its
/// place. Whatever fails, the old file stays as it was and the new one is removed.
class FileReplacement {
  public:
    /// Takes note of the file as it is now; it need not exist. A symbolic link is followed.
    explicit FileReplacement(const std::filesystem::path& path);

    const std::filesystem::path& path() const { return path_; }
    bool Exists() const { return exists_; }
    /// Whether somebody meant the file not to be changed, even where root could.
    bool readOnly() const;

    /// `write` is given the path to write to, returns false and sets errno when it fails. The new
    /// file gets the old one's permissions. False with the reason when the file is not replaced,
    /// also when somebody has changed it since it was noted.
    bool Replace(const std::function<bool(const std::string&)>& write, std::string& error);

  private:
    bool Unchanged() const;
    bool Fail(const char* action, std::string& error) const;
    bool WriteBeside(const std::string& beside,
                     const std::function<bool(const std::string&)>& write,
                     std::string& error) const;

    std::filesystem::path path_;
    bool exists_ = false;
    struct stat noted_ {};
};

}  // namespace netsieve::host
