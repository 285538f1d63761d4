#include "support/RecordingFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

/** What the place and its handle share. */
struct RecordingFile::Store {
    std::shared_ptr<Recording> recording;
    RecordedFileBytes bytes;
    bool isOpen = false;

    void add(RecordedEvent::Kind kind, uint64_t offset) const
    {
        recording->add({RecordedEvent::Medium::kFile, kind, offset, {}});
    }
};

class RecordingFile::Handle final : public PlatformWritableFile {
public:
    explicit Handle(std::shared_ptr<Store> store) : _store(std::move(store))
    {
        _store->isOpen = true;
    }
    ~Handle() override { _store->isOpen = false; }

    int64_t readAt(void* buffer, size_t nbyte, uint64_t offset) override
    {
        if (offset >= _store->bytes->size()) {
            return 0;
        }
        const size_t count = std::min<size_t>(nbyte, _store->bytes->size() - offset);
        std::memcpy(buffer, _store->bytes->data() + offset, count);
        return static_cast<int64_t>(count);
    }

    int64_t writeAt(const void* buffer, size_t nbyte, uint64_t offset) override
    {
        if (_store->bytes->size() < offset + nbyte) {
            _store->bytes->resize(offset + nbyte);
        }
        std::memcpy(_store->bytes->data() + offset, buffer, nbyte);
        _store->recording->addWrite(RecordedEvent::Medium::kFile, buffer, nbyte, offset);
        return static_cast<int64_t>(nbyte);
    }

    int64_t size() override { return static_cast<int64_t>(_store->bytes->size()); }

    int setSize(uint64_t nbyte) override
    {
        _store->bytes->resize(nbyte);
        _store->add(RecordedEvent::Kind::kSetSize, nbyte);
        return 0;
    }

    int synchronize() override
    {
        _store->add(RecordedEvent::Kind::kSynchronize, 0);
        return 0;
    }

private:
    std::shared_ptr<Store> _store;
};

RecordingFile::RecordingFile(std::shared_ptr<Recording> recording, RecordedFileBytes bytes)
    : _store(std::make_shared<Store>(Store{std::move(recording), std::move(bytes)}))
{
}

RecordingFile::~RecordingFile() = default;

PlatformWritableFileOpener RecordingFile::opener() const
{
    return
        [store = _store](bool create, int& errorNumber) -> std::unique_ptr<PlatformWritableFile> {
            if (store->isOpen || (!store->bytes && !create)) {
                errorNumber = store->isOpen ? EBUSY : ENOENT;
                return nullptr;
            }
            if (!store->bytes) {
                store->bytes.emplace();
                store->add(RecordedEvent::Kind::kCreate, 0);
            }
            return std::make_unique<Handle>(store);
        };
}

RecordedFileBytes RecordingFile::bytes() const
{
    return _store->bytes;
}

bool RecordingFile::isEmpty() const
{
    return !_store->bytes || _store->bytes->empty();
}
