#pragma once

// A disk that fails when told to, as SQLite tests itself: the process's default VFS from its install
// on, failing the n-th write, sync or truncate (alone, or with every one after it, as a dead disk)
// with an I/O error or "disk full", and losing in a power cut what each file got since its last sync.

#include <sqlite3.h>

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <new>
#include <string>

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
    // Every file goes back to what it held at its last sync, its size included. Call it with
    // every connection closed.
    void powerCut() {
        std::lock_guard lock(mutex_);
        for (const auto& [path, bytes] : synced_) {
            const int descriptor = ::open(path.c_str(), O_WRONLY | O_TRUNC);
            (void)::write(descriptor, bytes.data(), bytes.size());
            ::close(descriptor);
        }
        synced_.clear();
    }

private:
    // Follows the real file in each open file's space: its methods, writes, syncs and truncates via `call`.
    struct File {
        sqlite3_io_methods methods;
        const sqlite3_io_methods* real;
        std::string path;  // empty for a temporary file
    };

    FaultyDisk() : real_(sqlite3_vfs_find(nullptr)), vfs_(*real_) {
        offset_ = (real_->szOsFile + int(alignof(File)) - 1) / int(alignof(File)) * int(alignof(File));
        vfs_.zName = "faulty";
        vfs_.szOsFile = offset_ + int(sizeof(File));
        vfs_.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* f, int flags, int* out) {
            FaultyDisk& disk = install();
            const int rc = disk.real_->xOpen(disk.real_, name, f, flags, out);
            if (rc != SQLITE_OK) return rc;
            File& file =
                *new (reinterpret_cast<char*>(f) + disk.offset_) File{*f->pMethods, f->pMethods, name ? name : ""};
            file.methods.xClose = [](sqlite3_file* f) {
                const sqlite3_io_methods* real = of(f).real;
                of(f).~File();
                return real->xClose(f);
            };
            file.methods.xWrite = [](sqlite3_file* f, const void* data, int size, sqlite3_int64 offset) {
                return call(f, write, [&](const auto& real) { return real.xWrite(f, data, size, offset); });
            };
            file.methods.xTruncate = [](sqlite3_file* f, sqlite3_int64 size) {
                return call(f, truncate, [&](const auto& real) { return real.xTruncate(f, size); });
            };
            file.methods.xSync = [](sqlite3_file* f, int flags) {
                return call(f, sync, [&](const auto& real) { return real.xSync(f, flags); });
            };
            f->pMethods = &file.methods;
            return rc;
        };
        vfs_.xDelete = [](sqlite3_vfs*, const char* name, int syncDirectory) {
            FaultyDisk& disk = install();
            std::lock_guard lock(disk.mutex_);
            disk.synced_.erase(name);
            return disk.real_->xDelete(disk.real_, name, syncDirectory);
        };
        sqlite3_vfs_register(&vfs_, 1);
    }

    static File& of(sqlite3_file* f) {
        return *reinterpret_cast<File*>(reinterpret_cast<char*>(f) + install().offset_);
    }

    // Runs `real` unless this call fails; a write or truncate first copies the file as last synced.
    template <class Real>
    static int call(sqlite3_file* f, Call kind, Real real) {
        FaultyDisk& disk = install();
        File& file = of(f);
        std::lock_guard lock(disk.mutex_);
        if (disk.failing_) return disk.code_;
        if (disk.countdown_ > 0 && kind == disk.call_ && --disk.countdown_ == 0) {
            disk.failing_ = disk.dead_;
            return disk.code_;
        }
        if (kind != sync && !file.path.empty() && !disk.synced_.contains(file.path)) {
            sqlite3_int64 size = 0;
            file.real->xFileSize(f, &size);
            std::string& bytes = disk.synced_[file.path];
            bytes.resize(std::size_t(size));
            if (size > 0) file.real->xRead(f, bytes.data(), int(size), 0);
        }
        const int rc = real(*file.real);
        if (kind == sync && rc == SQLITE_OK) disk.synced_.erase(file.path);
        return rc;
    }

    sqlite3_vfs* real_;
    sqlite3_vfs vfs_;
    int offset_ = 0;  // of our part of each file, after the real file
    std::mutex mutex_;
    Call call_ = write;
    int countdown_ = 0, code_ = SQLITE_OK;
    bool dead_ = false, failing_ = false;
    std::map<std::string, std::string> synced_;
};

}  // namespace notificationdb::testing
