// Helpers for the metadata tests: a temporary tree on a disk file system
// (user extended attributes need one), a port whose calls can be made to
// fail one at a time, and small file utilities.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "platform/fileattrs/LinuxFileAttributesPort.h"
#include "plist/PlistValue.h"

namespace qvl::testing {

// A fresh folder under /var/tmp, removed with everything in it at the end.
class TempTree {
  public:
    TempTree();
    ~TempTree();
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& relative) const { return root_ + "/" + relative; }
    // Creates the file (and its folders) with `content`; returns its path.
    std::string file(const std::string& relative, const std::string& content = "", mode_t mode = 0644) const;
    std::string folder(const std::string& relative, mode_t mode = 0755) const;
    std::string symlink(const std::string& relative, const std::string& target) const;
    std::string fifo(const std::string& relative) const;
    std::string socket(const std::string& relative) const;

  private:
    std::string root_;
};

// The Linux port with hooks: a hook that is set is asked first and, when it
// answers true, the call fails with its errno.
class FaultyPort : public platform::LinuxFileAttributesPort {
  public:
    std::function<bool(const std::string& path)> failStat;
    std::function<bool(const std::string& path)> failListExtendedAttributes;  // second call only
    std::function<bool(const std::string& path)> failFirstListExtendedAttributes;
    std::function<bool(const std::string& name, bool sizeQuery)> failGetExtendedAttribute;
    std::function<bool(const std::string& path)> failListDirectory;
    std::function<bool(const std::string& path)> failOpen;
    // Fails the n-th read (counting from 1) of any descriptor when set.
    int failReadNumber = 0;
    int reads = 0;
    std::vector<std::pair<off_t, off_t>> doneAdvice;
    int errnoToSet = EIO;

    int statItem(const std::string& path, platform::ItemStat* out) override;
    ssize_t listExtendedAttributes(const std::string& path, char* buffer, size_t size) override;
    ssize_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                 size_t size) override;
    int listDirectory(const std::string& path, std::vector<platform::DirectoryEntry>* out) override;
    int openForReading(const std::string& path, uint64_t* size) override;
    ssize_t read(int fd, void* buffer, size_t size) override;
    void adviseDone(int fd, off_t offset, off_t length) override;
};

plist::Data sha1Of(const std::string& bytes);
// Runs a shell command and returns its standard output.
std::string commandOutput(const std::string& command);
void setUserAttribute(const std::string& path, const std::string& name, const std::string& value);

}  // namespace qvl::testing
