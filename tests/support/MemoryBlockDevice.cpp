#include "support/MemoryBlockDevice.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <unordered_map>

/** What all handles on one device share. */
struct MemoryBlockDevice::Store {
    using Pages = std::unordered_map<uint64_t, std::shared_ptr<Page>>;

    // Pages are shared with clones until one side writes, which makes cloning cheap enough to
    // repeat a whole operation once for each of its writes.
    Pages pages;
    std::shared_ptr<const Pages> frozen = std::make_shared<Pages>();  // where pages has none
    uint64_t size = 0;
    bool writable = true;
    uint64_t readCount = 0;
    uint64_t writeCount = 0;
    uint64_t synchronizeCount = 0;
    std::vector<Operation> log;
    mutable std::mutex mutex;  // guards every field above

    [[nodiscard]] const Page* page(uint64_t number) const;
    void read(uint8_t* target, size_t nbyte, uint64_t offset) const;
    void write(const uint8_t* source, size_t nbyte, uint64_t offset);
};

const MemoryBlockDevice::Page* MemoryBlockDevice::Store::page(uint64_t number) const
{
    const auto found = pages.find(number);
    if (found != pages.end()) {
        return found->second.get();
    }
    const auto kept = frozen->find(number);
    return kept != frozen->end() ? kept->second.get() : nullptr;
}

void MemoryBlockDevice::Store::read(uint8_t* target, size_t nbyte, uint64_t offset) const
{
    while (nbyte > 0) {
        const size_t start = static_cast<size_t>(offset % kPageSize);
        const size_t count = std::min(nbyte, kPageSize - start);
        const Page* const bytes = page(offset / kPageSize);
        if (bytes == nullptr) {
            std::memset(target, 0, count);
        } else {
            std::memcpy(target, bytes->data() + start, count);
        }
        target += count;
        offset += count;
        nbyte -= count;
    }
}

void MemoryBlockDevice::Store::write(const uint8_t* source, size_t nbyte, uint64_t offset)
{
    while (nbyte > 0) {
        const size_t start = static_cast<size_t>(offset % kPageSize);
        const size_t count = std::min(nbyte, kPageSize - start);
        const Page* const old = page(offset / kPageSize);
        std::shared_ptr<Page>& bytes = pages[offset / kPageSize];
        if (bytes == nullptr || bytes.use_count() > 1) {
            bytes = old != nullptr ? std::make_shared<Page>(*old) : std::make_shared<Page>();
        }
        std::memcpy(bytes->data() + start, source, count);
        source += count;
        offset += count;
        nbyte -= count;
    }
}

MemoryBlockDevice::MemoryBlockDevice(uint64_t size, uint32_t blockSize)
    : _store(std::make_shared<Store>()), _blockSize(blockSize)
{
    _store->size = size;
}

MemoryBlockDevice::MemoryBlockDevice(std::shared_ptr<Store> store, uint32_t blockSize)
    : _store(std::move(store)), _blockSize(blockSize)
{
}

MemoryBlockDevice::~MemoryBlockDevice() = default;

int64_t MemoryBlockDevice::readAt(void* buffer, size_t nbyte, uint64_t offset)
{
    const std::lock_guard lock(_store->mutex);
    _store->readCount++;
    _store->log.push_back({Operation::Kind::kRead, offset, nbyte});
    if (!_isWhole(nbyte, offset)) {
        return -EINVAL;
    }
    const uint64_t end = _store->size / _blockSize * _blockSize;
    if (offset >= end) {
        return 0;
    }
    const size_t count = static_cast<size_t>(std::min<uint64_t>(nbyte, end - offset));
    _store->read(static_cast<uint8_t*>(buffer), count, offset);
    return static_cast<int64_t>(count);
}

int64_t MemoryBlockDevice::writeAt(const void* buffer, size_t nbyte, uint64_t offset)
{
    const std::lock_guard lock(_store->mutex);
    _store->writeCount++;
    _store->log.push_back({Operation::Kind::kWrite, offset, nbyte});
    if (!_store->writable) {
        return -EROFS;
    }
    if (!_isWhole(nbyte, offset)) {
        return -EINVAL;
    }
    const uint64_t end = _store->size / _blockSize * _blockSize;
    if (offset >= end) {
        return -ENOSPC;
    }
    const size_t count = static_cast<size_t>(std::min<uint64_t>(nbyte, end - offset));
    _store->write(static_cast<const uint8_t*>(buffer), count, offset);
    return static_cast<int64_t>(count);
}

int MemoryBlockDevice::synchronize()
{
    const std::lock_guard lock(_store->mutex);
    _store->synchronizeCount++;
    _store->log.push_back({Operation::Kind::kSynchronize, 0, 0});
    return 0;
}

uint32_t MemoryBlockDevice::blockSize() const
{
    return _blockSize;
}

uint64_t MemoryBlockDevice::blockCount() const
{
    return size() / _blockSize;
}

bool MemoryBlockDevice::isWritable() const
{
    const std::lock_guard lock(_store->mutex);
    return _store->writable;
}

std::unique_ptr<PlatformBlockDevice> MemoryBlockDevice::duplicate() const
{
    return share();
}

std::unique_ptr<MemoryBlockDevice> MemoryBlockDevice::share() const
{
    return std::unique_ptr<MemoryBlockDevice>(new MemoryBlockDevice(_store, _blockSize));
}

std::unique_ptr<MemoryBlockDevice> MemoryBlockDevice::clone() const
{
    const std::lock_guard lock(_store->mutex);
    auto copy = std::make_unique<MemoryBlockDevice>(_store->size, _blockSize);
    copy->_store->pages = _store->pages;
    copy->_store->frozen = _store->frozen;
    copy->_store->writable = _store->writable;
    return copy;
}

void MemoryBlockDevice::freeze()
{
    const std::lock_guard lock(_store->mutex);
    auto all = std::make_shared<Store::Pages>(*_store->frozen);
    for (const auto& [number, bytes] : _store->pages) {
        (*all)[number] = bytes;
    }
    _store->frozen = std::move(all);
    _store->pages.clear();
}

void MemoryBlockDevice::peek(void* buffer, size_t nbyte, uint64_t offset) const
{
    const std::lock_guard lock(_store->mutex);
    _store->read(static_cast<uint8_t*>(buffer), nbyte, offset);
}

void MemoryBlockDevice::poke(const void* buffer, size_t nbyte, uint64_t offset)
{
    const std::lock_guard lock(_store->mutex);
    _store->size = std::max(_store->size, offset + nbyte);
    _store->write(static_cast<const uint8_t*>(buffer), nbyte, offset);
}

void MemoryBlockDevice::setSize(uint64_t size)
{
    const std::lock_guard lock(_store->mutex);
    _store->size = size;
}

void MemoryBlockDevice::setWritable(bool writable)
{
    const std::lock_guard lock(_store->mutex);
    _store->writable = writable;
}

bool MemoryBlockDevice::hasSameBytesAs(const MemoryBlockDevice& other) const
{
    if (_store == other._store) {
        return true;
    }
    const std::scoped_lock lock(_store->mutex, other._store->mutex);
    const auto areEqual = [&](const Store::Pages& pages) {
        const Page zeros{};
        return std::ranges::all_of(pages, [&](const auto& item) {
            const Page* const one = _store->page(item.first);
            const Page* const two = other._store->page(item.first);
            return (one != nullptr ? *one : zeros) == (two != nullptr ? *two : zeros);
        });
    };
    const bool haveSameFrozen = _store->frozen == other._store->frozen;
    return _store->size == other._store->size && areEqual(_store->pages) &&
           areEqual(other._store->pages) &&
           (haveSameFrozen || (areEqual(*_store->frozen) && areEqual(*other._store->frozen)));
}

uint64_t MemoryBlockDevice::size() const
{
    const std::lock_guard lock(_store->mutex);
    return _store->size;
}

uint64_t MemoryBlockDevice::readCount() const
{
    const std::lock_guard lock(_store->mutex);
    return _store->readCount;
}

uint64_t MemoryBlockDevice::writeCount() const
{
    const std::lock_guard lock(_store->mutex);
    return _store->writeCount;
}

uint64_t MemoryBlockDevice::synchronizeCount() const
{
    const std::lock_guard lock(_store->mutex);
    return _store->synchronizeCount;
}

std::vector<MemoryBlockDevice::Operation> MemoryBlockDevice::operations() const
{
    const std::lock_guard lock(_store->mutex);
    return _store->log;
}

void MemoryBlockDevice::clearOperations()
{
    const std::lock_guard lock(_store->mutex);
    _store->log.clear();
    _store->readCount = 0;
    _store->writeCount = 0;
    _store->synchronizeCount = 0;
}

bool MemoryBlockDevice::_isWhole(size_t nbyte, uint64_t offset) const
{
    return nbyte % _blockSize == 0 && offset % _blockSize == 0;
}
