#pragma once

// A disk that fails when told to, the way SQLite tests itself: a VFS over the default one that
// fails the n-th write, sync or truncate from now on (that call alone, or every write, sync and
// truncate from it on, as a dead disk does) with an I/O error or "disk full", and that loses, as a
// power cut does, what was written to each file since its last sync. Installed as the default VFS
// of the process, it serves every connection opened afterwards.

#include <sqlite3.h>

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

namespace notificationdb::testing {

class FaultyDisk {
public:
    enum Call { write, sync, truncate };

    static FaultyDisk& install() {
        static FaultyDisk* const disk = new FaultyDisk();
        return *disk;
    }

    // Fails the `nth` call of kind `call` from now on (1: the next) with `code`, and when `dead`
    // every write, sync and truncate after it too.
    void failAt(Call call, int nth, int code, bool dead) {
        std::lock_guard lock(mutex_);
        call_ = call, countdown_ = nth, code_ = code, dead_ = dead, failing_ = false;
    }
    void repair() { failAt(write, 0, SQLITE_OK, false); }
    // Every file loses what was written to it since its last sync, its size included. Call it
    // with every connection closed.
    void powerCut() {
        std::lock_guard lock(mutex_);
        for (auto& [path, file] : unsynced_) {
            const int descriptor = ::open(path.c_str(), O_WRONLY);
            for (const auto& [offset, bytes] : file.old) (void)::pwrite(descriptor, bytes.data(), bytes.size(), offset);
            (void)::ftruncate(descriptor, file.syncedSize);
            ::close(descriptor);
        }
        unsynced_.clear();
    }

private:
    struct File {
        sqlite3_file base;
        FaultyDisk* disk;
        std::string* path;  // empty for a temporary file
        sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
    };
    // What a file held at its last sync, where it has changed since: its size, and the old bytes
    // of every range written below that size.
    struct Unsynced {
        sqlite3_int64 syncedSize = 0;
        std::map<sqlite3_int64, std::vector<char>> old;
    };

    FaultyDisk() : real_(sqlite3_vfs_find(nullptr)), vfs_(*real_) {
        vfs_.zName = "faulty";
        vfs_.pAppData = this;
        vfs_.szOsFile = int(sizeof(File)) + real_->szOsFile;
        vfs_.xOpen = [](sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out) {
            auto* disk = static_cast<FaultyDisk*>(vfs->pAppData);
            auto* faulty = reinterpret_cast<File*>(file);
            const int rc = disk->real_->xOpen(disk->real_, name, faulty->real(), flags, out);
            faulty->base.pMethods = rc == SQLITE_OK ? &disk->ioMethods : nullptr;
            faulty->disk = disk;
            faulty->path = new std::string(name != nullptr ? name : "");
            if (rc != SQLITE_OK) delete faulty->path;
            return rc;
        };
        vfs_.xDelete = [](sqlite3_vfs* vfs, const char* name, int syncDirectory) {
            auto* disk = static_cast<FaultyDisk*>(vfs->pAppData);
            std::lock_guard lock(disk->mutex_);
            disk->unsynced_.erase(name);
            return disk->real_->xDelete(disk->real_, name, syncDirectory);
        };
        sqlite3_vfs_register(&vfs_, 1);
    }

    static File& of(sqlite3_file* file) { return *reinterpret_cast<File*>(file); }
    static const sqlite3_io_methods& realMethods(sqlite3_file* file) { return *of(file).real()->pMethods; }

    // The result of the next call of kind `call`.
    int nextCall(Call call) {
        if (failing_) return code_;
        if (countdown_ <= 0 || call != call_ || --countdown_ > 0) return SQLITE_OK;
        failing_ = dead_;
        return code_;
    }
    // Keeps the bytes that a write (or a truncate) of [from, to) in `file` replaces, where the
    // file's last sync had them and they are not kept yet.
    void keep(File& file, sqlite3_int64 from, sqlite3_int64 to) {
        if (file.path->empty()) return;
        auto [entry, fresh] = unsynced_.try_emplace(*file.path);
        Unsynced& unsynced = entry->second;
        if (fresh) realMethods(&file.base).xFileSize(file.real(), &unsynced.syncedSize);
        to = std::min(to, unsynced.syncedSize);
        while (from < to) {
            auto next = unsynced.old.upper_bound(from);
            if (next != unsynced.old.begin()) {
                const auto& [start, bytes] = *std::prev(next);
                if (from < start + sqlite3_int64(bytes.size())) {
                    from = start + sqlite3_int64(bytes.size());
                    continue;
                }
            }
            const sqlite3_int64 end = next != unsynced.old.end() ? std::min(to, next->first) : to;
            std::vector<char> bytes(std::size_t(end - from));
            realMethods(&file.base).xRead(file.real(), bytes.data(), int(bytes.size()), from);
            unsynced.old.emplace(from, std::move(bytes));
            from = end;
        }
    }

    sqlite3_vfs* real_;
    sqlite3_vfs vfs_;
    std::mutex mutex_;
    Call call_ = write;
    int countdown_ = 0;
    int code_ = SQLITE_OK;
    bool dead_ = false;
    bool failing_ = false;
    std::map<std::string, Unsynced> unsynced_;

    const sqlite3_io_methods ioMethods = {
        3,
        [](sqlite3_file* f) {
            delete of(f).path;
            return realMethods(f).xClose(of(f).real());
        },
        [](sqlite3_file* f, void* data, int size, sqlite3_int64 offset) {
            return realMethods(f).xRead(of(f).real(), data, size, offset);
        },
        [](sqlite3_file* f, const void* data, int size, sqlite3_int64 offset) {
            FaultyDisk& disk = *of(f).disk;
            std::lock_guard lock(disk.mutex_);
            if (const int rc = disk.nextCall(write); rc != SQLITE_OK) return rc;
            disk.keep(of(f), offset, offset + size);
            return realMethods(f).xWrite(of(f).real(), data, size, offset);
        },
        [](sqlite3_file* f, sqlite3_int64 size) {
            FaultyDisk& disk = *of(f).disk;
            std::lock_guard lock(disk.mutex_);
            if (const int rc = disk.nextCall(truncate); rc != SQLITE_OK) return rc;
            disk.keep(of(f), size, INT64_MAX);
            return realMethods(f).xTruncate(of(f).real(), size);
        },
        [](sqlite3_file* f, int flags) {
            FaultyDisk& disk = *of(f).disk;
            std::lock_guard lock(disk.mutex_);
            if (const int rc = disk.nextCall(sync); rc != SQLITE_OK) return rc;
            const int rc = realMethods(f).xSync(of(f).real(), flags);
            if (rc == SQLITE_OK) disk.unsynced_.erase(*of(f).path);
            return rc;
        },
        [](sqlite3_file* f, sqlite3_int64* size) { return realMethods(f).xFileSize(of(f).real(), size); },
        [](sqlite3_file* f, int lock) { return realMethods(f).xLock(of(f).real(), lock); },
        [](sqlite3_file* f, int lock) { return realMethods(f).xUnlock(of(f).real(), lock); },
        [](sqlite3_file* f, int* out) { return realMethods(f).xCheckReservedLock(of(f).real(), out); },
        [](sqlite3_file* f, int op, void* arg) { return realMethods(f).xFileControl(of(f).real(), op, arg); },
        [](sqlite3_file* f) { return realMethods(f).xSectorSize(of(f).real()); },
        [](sqlite3_file* f) { return realMethods(f).xDeviceCharacteristics(of(f).real()); },
        [](sqlite3_file* f, int page, int size, int extend, void volatile** out) {
            return realMethods(f).xShmMap(of(f).real(), page, size, extend, out);
        },
        [](sqlite3_file* f, int offset, int n, int flags) {
            return realMethods(f).xShmLock(of(f).real(), offset, n, flags);
        },
        [](sqlite3_file* f) { realMethods(f).xShmBarrier(of(f).real()); },
        [](sqlite3_file* f, int deleteFlag) { return realMethods(f).xShmUnmap(of(f).real(), deleteFlag); },
        [](sqlite3_file* f, sqlite3_int64 offset, int size, void** out) {
            return realMethods(f).xFetch(of(f).real(), offset, size, out);
        },
        [](sqlite3_file* f, sqlite3_int64 offset, void* page) {
            return realMethods(f).xUnfetch(of(f).real(), offset, page);
        },
    };
};

}  // namespace notificationdb::testing
