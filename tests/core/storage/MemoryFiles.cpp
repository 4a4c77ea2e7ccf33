#include "core/storage/MemoryFiles.h"

#include "core/fs/ZnPath.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <utility>

class MemoryFile final : public ZnStorageFile {
public:
    MemoryFile(MemoryFiles& files, MemoryFiles::NodePtr node, bool syncEach)
        : files_(files), node_(std::move(node)), syncEach_(syncEach) {}

    int readAt(std::uint64_t offset, char* buffer, std::size_t byteCount, std::size_t* movedBytes) override {
        return files_.unlessItFails([&] {
            const std::string& content = node_->current;
            *movedBytes = offset >= content.size() ? 0 : content.copy(buffer, byteCount, offset);
            return 0;
        });
    }
    int writeAt(std::uint64_t offset, const char* bytes, std::size_t byteCount, std::size_t* movedBytes) override {
        const std::lock_guard lock(files_.mutex_);
        const int error = files_.fault();
        if (error != 0)
            byteCount /= 2;
        const std::uint64_t growth =
            std::max<std::uint64_t>(offset + byteCount, node_->current.size()) - node_->current.size();
        if (growth > files_.freeBytes_)
            byteCount -= std::min<std::uint64_t>(byteCount, growth - files_.freeBytes_);
        files_.freeBytes_ -= std::min(growth, files_.freeBytes_);
        *movedBytes = byteCount;
        if (byteCount > 0)
            change({false, offset, std::string(bytes, byteCount)});
        return error != 0 ? error : byteCount == 0 ? ENOSPC : 0;
    }
    int truncate(std::uint64_t sizeBytes) override {
        return files_.unlessItFails([&] {
            change({true, sizeBytes, {}});
            return 0;
        });
    }
    int sync() override {
        const std::lock_guard lock(files_.mutex_);
        const int error = files_.fault();
        for (const MemoryFiles::Change& change : node_->pending)
            if (error == 0)
                MemoryFiles::apply(&node_->durable, change);
        node_->pending.clear(); // after a failure, too: the system gives it up
        return error;
    }
    int syncData() override { return sync(); }
    int size(std::uint64_t* sizeBytes) override {
        const std::lock_guard lock(files_.mutex_);
        *sizeBytes = node_->current.size();
        return files_.fault();
    }

private:
    void change(MemoryFiles::Change change) {
        MemoryFiles::apply(&node_->current, change);
        if (syncEach_ && !change.isTruncate)
            MemoryFiles::apply(&node_->durable, change);
        else
            node_->pending.push_back(std::move(change));
    }

    MemoryFiles& files_;
    const MemoryFiles::NodePtr node_;
    const bool syncEach_;
};

namespace {

struct MemoryMapping final : ZnStorageMapping {
    explicit MemoryMapping(std::string content) : bytes(content.begin(), content.end()) {}
    const char* data() const override { return bytes.data(); }
    const std::vector<char> bytes; // no NUL behind it, so that a sanitizer sees the first byte too many
};

struct MemoryLock final : ZnStorageLock {
    explicit MemoryLock(std::function<void()> whenReleased) : release(std::move(whenReleased)) {}
    ~MemoryLock() override { release(); }
    const std::function<void()> release;
};

} // namespace

void MemoryFiles::apply(std::string* content, const Change& change) {
    if (change.isTruncate) {
        content->resize(change.offset);
        return;
    }
    content->resize(std::max<std::size_t>(content->size(), change.offset + change.bytes.size()));
    content->replace(change.offset, change.bytes.size(), change.bytes);
}

int MemoryFiles::fault() {
    ++count_;
    if (stopNumber_ != 0 && count_ >= stopNumber_)
        return EIO;
    return failNumber_ != 0 && count_ == failNumber_ ? failError_ : 0;
}

void MemoryFiles::apply(std::map<ZnString, NodePtr>* names, const NameChange& change) {
    for (const auto& [path, node] : change.names) {
        if (node != nullptr)
            (*names)[path] = node;
        else
            names->erase(path);
    }
}

void MemoryFiles::changeNames(NameChange change) {
    apply(&names_, change);
    pendingNames_.push_back(std::move(change));
}

void MemoryFiles::keepSome(Node* node, std::mt19937_64* random) {
    for (Change& change : node->pending) {
        const auto choice = (*random)() % 3; // lost, kept, torn
        if (choice == 2 && !change.isTruncate)
            change.bytes.resize((*random)() % (change.bytes.size() + 1));
        if (choice != 0)
            apply(&node->durable, change);
    }
}

void MemoryFiles::cutPower(std::mt19937_64* random) {
    for (const NameChange& change : pendingNames_)
        if (random != nullptr && (*random)() % 2 != 0)
            apply(&durableNames_, change);
    pendingNames_.clear();
    names_ = durableNames_;
    std::set<NodePtr> nodes;
    for (const auto& [path, node] : names_)
        nodes.insert(node);
    for (const NodePtr& node : nodes) {
        if (random != nullptr)
            keepSome(node.get(), random);
        node->pending.clear();
        node->current = node->durable;
    }
    failNumber_ = 0;
    stopNumber_ = 0;
    count_ = 0;
}

void MemoryFiles::put(const ZnString& path, const std::string& content) {
    names_[path] = durableNames_[path] = std::make_shared<Node>(Node{content, content, {}});
}

std::vector<ZnString> MemoryFiles::paths() const {
    std::vector<ZnString> all;
    for (const auto& [path, node] : names_)
        all.push_back(path);
    return all;
}

int MemoryFiles::open(const ZnString& path, Access access, std::unique_ptr<ZnStorageFile>* file, bool* isNew) {
    return unlessItFails([&] {
        *isNew = !has(path);
        if (*isNew && !(access.write && access.create))
            return ENOENT;
        if (*isNew)
            changeNames({{{path, std::make_shared<Node>()}}});
        *file = std::make_unique<MemoryFile>(*this, names_[path], access.syncEach);
        if (access.truncate && !names_[path]->current.empty()) {
            names_[path]->pending.push_back({true, 0, {}});
            names_[path]->current.clear();
        }
        return 0;
    });
}

int MemoryFiles::map(const ZnString& path, std::unique_ptr<ZnStorageMapping>* mapping, std::uint64_t* sizeBytes) {
    return unlessItFails([&] {
        if (!has(path))
            return ENOENT;
        *sizeBytes = content(path).size();
        if (*sizeBytes == 0)
            return EINVAL;
        *mapping = std::make_unique<MemoryMapping>(content(path));
        return 0;
    });
}

int MemoryFiles::rename(const ZnString& from, const ZnString& to) {
    return unlessItFails([&] {
        if (!has(from))
            return ENOENT;
        const NodePtr node = names_[from];
        if (parentPath(from) == parentPath(to)) {
            changeNames({{{from, nullptr}, {to, node}}});
            return 0;
        }
        changeNames({{{to, node}}});
        changeNames({{{from, nullptr}}});
        return 0;
    });
}

int MemoryFiles::remove(const ZnString& path) {
    return unlessItFails([&] {
        if (!has(path))
            return ENOENT;
        changeNames({{{path, nullptr}}});
        return 0;
    });
}

int MemoryFiles::makePath(const ZnString&) {
    return unlessItFails([] { return 0; });
}

int MemoryFiles::syncDirectory(const ZnString& path) {
    const std::lock_guard guard(mutex_);
    const int error = fault();
    std::vector<NameChange> others;
    for (NameChange& change : pendingNames_) {
        if (parentPath(change.names.front().first) != path)
            others.push_back(std::move(change));
        else if (error == 0)
            apply(&durableNames_, change);
    }
    pendingNames_ = std::move(others); // after a failure, too: the system gives them up
    return error;
}

int MemoryFiles::list(const ZnString& path, std::vector<ZnString>* names) {
    return unlessItFails([&] {
        for (const auto& [name, node] : names_)
            if (parentPath(name) == path)
                names->push_back(ZnString(name.view().substr(path.size() + 1)));
        return 0;
    });
}

int MemoryFiles::lock(const ZnString& path, std::unique_ptr<ZnStorageLock>* lock) {
    return unlessItFails([&] {
        if (!locks_.insert(path).second)
            return EWOULDBLOCK;
        *lock = std::make_unique<MemoryLock>([this, path] {
            const std::lock_guard again(mutex_);
            locks_.erase(path);
        });
        return 0;
    });
}
