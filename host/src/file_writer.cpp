#include "quorv/host/file_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

namespace quorv::host {

namespace {

Error WriteError(const std::string& path, int error) {
    return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                           FormatMessage("Cannot write @: @", {path, std::strerror(error)}));
}

bool WriteAll(int fd, std::string_view bytes) {
    const char* p = bytes.data();
    size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) {
            errno = EIO;
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return true;
}

// The process's file creation mask, read without changing it: umask() would set it, and
// another thread creating a file in between would see the wrong mask.
mode_t CreationMask() {
    FILE* status = std::fopen("/proc/self/status", "re");
    mode_t mask = 022;
    if (!status) return mask;
    char line[256];
    while (std::fgets(line, sizeof(line), status)) {
        unsigned int value;
        if (std::sscanf(line, "Umask: %o", &value) == 1) {
            mask = static_cast<mode_t>(value);
            break;
        }
    }
    std::fclose(status);
    return mask;
}

}  // namespace

Result<void> WriteFileAtomically(const std::string& path, std::string_view bytes) {
    if (path.empty()) return WriteError(path, ENOENT);
    const std::filesystem::path target(path);
    const std::string name = target.filename().string();
    if (name.empty() || name == "." || name == "..") return WriteError(path, EISDIR);
    const std::filesystem::path folder = target.has_parent_path() ? target.parent_path() : ".";
    // A hidden name in the same folder, so that the rename never crosses file systems.
    std::string temp = (folder / ("." + name + ".XXXXXX")).string();
    std::vector<char> templ(temp.begin(), temp.end());
    templ.push_back('\0');
    const int fd = mkostemp(templ.data(), O_CLOEXEC);
    if (fd < 0) return WriteError(path, errno);
    temp.assign(templ.data());

    int error = 0;
    // mkostemp makes the file private; a written file gets the usual permissions.
    if (fchmod(fd, 0666 & ~CreationMask()) != 0) error = errno;
    if (!error && !WriteAll(fd, bytes)) error = errno;
    if (!error && fsync(fd) != 0) error = errno;
    if (close(fd) != 0 && !error) error = errno;
    if (!error && rename(temp.c_str(), path.c_str()) != 0) error = errno;
    if (error) {
        unlink(temp.c_str());
        return WriteError(path, error);
    }
    // The rename itself is made durable with the folder; a failure here loses no data.
    const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return OK;
}

}  // namespace quorv::host
