#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace netsieve::host {

/// Where an image's imports lead. Module names compare without case, as the kernel compares them;
/// function names compare exactly.
class ImportResolver {
  public:
    virtual ~ImportResolver() = default;
    /// The address that `name` of module `dll` is bound to, or null when it is not known here.
    virtual void* Resolve(std::string_view dll, std::string_view name) const = 0;
};

/// Whether two module names are the same name.
bool SameModuleName(std::string_view left, std::string_view right);

/// Names and addresses, entered one by one.
class ImportTable : public ImportResolver {
  public:
    /// Binds `name` of `dll`. A later entry of the same name replaces an earlier one.
    void Add(std::string_view dll, std::string_view name, void* address);
    void* Resolve(std::string_view dll, std::string_view name) const override;

  private:
    std::map<std::pair<std::string, std::string>, void*> addresses_;
};

/// Asks others in the order they were added; the first that knows a name decides.
class ImportChain : public ImportResolver {
  public:
    /// `resolver` is not owned and must outlive the chain.
    void Add(const ImportResolver& resolver);
    void* Resolve(std::string_view dll, std::string_view name) const override;

  private:
    std::vector<const ImportResolver*> resolvers_;
};

}  // namespace netsieve::host
