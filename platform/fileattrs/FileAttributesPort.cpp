#include "platform/fileattrs/FileAttributesPort.h"

#include <atomic>

#include "platform/fileattrs/LinuxFileAttributesPort.h"

namespace qvl::platform {
namespace {

std::atomic<FileAttributesPort*> gSwappedPort{nullptr};

}  // namespace

FileAttributesPort& FileAttributesPort::current() {
    FileAttributesPort* swapped = gSwappedPort.load(std::memory_order_acquire);
    return swapped ? *swapped : LinuxFileAttributesPort::sharedInstance();
}

ScopedFileAttributesPort::ScopedFileAttributesPort(FileAttributesPort& port)
    : previous_(gSwappedPort.exchange(&port, std::memory_order_acq_rel)) {}

ScopedFileAttributesPort::~ScopedFileAttributesPort() {
    gSwappedPort.store(previous_, std::memory_order_release);
}

}  // namespace qvl::platform
