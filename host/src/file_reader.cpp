// Reading whole files for the services that take a url (lexer, descriptions, ...), with the
// system's reason in every error.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "services_impl.h"

namespace quorv::host {

Result<std::string> ReadWholeFile(const std::string& path) {
    auto fail = [&path](int error) -> Error {
        return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                               FormatMessage("Cannot read @: @", {path, std::strerror(error)}));
    };
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(errno);
    struct stat st {};
    if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        const int error = S_ISDIR(st.st_mode) ? EISDIR : errno;
        close(fd);
        return fail(error);
    }
    auto tooLarge = [&]() -> Error {
        close(fd);
        return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                               FormatMessage("Cannot read @: larger than @ bytes",
                                             {path, std::to_string(MAX_READ_BYTES)}));
    };
    if (S_ISREG(st.st_mode) && st.st_size > MAX_READ_BYTES) return tooLarge();
    std::string bytes;
    try {
        if (S_ISREG(st.st_mode)) bytes.reserve(static_cast<size_t>(st.st_size));
        char chunk[65536];
        for (;;) {
            const ssize_t n = read(fd, chunk, sizeof(chunk));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                const int error = errno;
                close(fd);
                return fail(error);
            }
            if (n == 0) break;
            if (static_cast<Int>(bytes.size()) + n > MAX_READ_BYTES) return tooLarge();
            bytes.append(chunk, static_cast<size_t>(n));
        }
    } catch (const std::bad_alloc&) {
        close(fd);
        return OutOfMemoryError();
    }
    close(fd);
    return bytes;
}

}  // namespace quorv::host
