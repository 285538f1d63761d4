#include "support/RecordingBlockDevice.h"

#include <utility>

RecordingBlockDevice::RecordingBlockDevice(std::unique_ptr<PlatformBlockDevice> device,
                                           std::shared_ptr<Recording> recording)
    : _device(std::move(device)), _recording(std::move(recording))
{
}

int64_t RecordingBlockDevice::readAt(void* buffer, size_t nbyte, uint64_t offset)
{
    return _device->readAt(buffer, nbyte, offset);
}

int64_t RecordingBlockDevice::writeAt(const void* buffer, size_t nbyte, uint64_t offset)
{
    const int64_t written = _device->writeAt(buffer, nbyte, offset);
    if (written > 0) {
        _recording->addWrite(RecordedEvent::Medium::kDevice, buffer, static_cast<size_t>(written),
                             offset);
    }
    return written;
}

int RecordingBlockDevice::synchronize()
{
    const int reason = _device->synchronize();
    if (reason == 0) {
        _recording->add({RecordedEvent::Medium::kDevice, RecordedEvent::Kind::kSynchronize, 0, {}});
    }
    return reason;
}

uint32_t RecordingBlockDevice::blockSize() const
{
    return _device->blockSize();
}

uint64_t RecordingBlockDevice::blockCount() const
{
    return _device->blockCount();
}

bool RecordingBlockDevice::isWritable() const
{
    return _device->isWritable();
}

std::unique_ptr<PlatformBlockDevice> RecordingBlockDevice::duplicate() const
{
    std::unique_ptr<PlatformBlockDevice> device = _device->duplicate();
    if (device == nullptr) {
        return nullptr;
    }
    return std::make_unique<RecordingBlockDevice>(std::move(device), _recording);
}
