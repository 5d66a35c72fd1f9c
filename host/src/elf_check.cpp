// Checks a module file before the system loader maps it. The loader trusts the file: a
// truncated copy makes it touch pages past the end of the file, which kills the process with
// SIGBUS instead of failing the load. Here the file must be an ELF shared object of this
// machine whose program headers and loadable segments lie inside the file.
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "host_internal.h"

namespace quorv::host {

namespace {

#if defined(__x86_64__)
constexpr Elf64_Half NATIVE_MACHINE = EM_X86_64;
#elif defined(__aarch64__)
constexpr Elf64_Half NATIVE_MACHINE = EM_AARCH64;
#else
#error "Unknown machine: add its ELF machine number"
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
constexpr unsigned char NATIVE_DATA = ELFDATA2LSB;
#else
constexpr unsigned char NATIVE_DATA = ELFDATA2MSB;
#endif

Error Refuse(const std::string& path, std::string_view why) {
    return MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION,
                           FormatMessage("Cannot load module @: @", {path, why}));
}

// A range of `count` items of `size` bytes at `offset` lies inside a file of `fileSize` bytes.
bool Inside(UInt offset, UInt size, UInt count, UInt fileSize) {
    if (count != 0 && size > (~UInt{0}) / count) return false;
    const UInt bytes = size * count;
    return offset <= fileSize && bytes <= fileSize - offset;
}

bool ReadAt(int fd, void* buffer, size_t size, off_t offset) {
    auto* p = static_cast<char*>(buffer);
    while (size > 0) {
        ssize_t n = pread(fd, p, size, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

struct FileDescriptor {
    int fd;
    ~FileDescriptor() {
        if (fd >= 0) close(fd);
    }
};

}  // namespace

Result<void> CheckSharedObjectFile(const std::string& path) {
    FileDescriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return Refuse(path, std::strerror(errno));
    struct stat st {};
    if (fstat(file.fd, &st) != 0) return Refuse(path, std::strerror(errno));
    if (S_ISDIR(st.st_mode)) return Refuse(path, std::strerror(EISDIR));
    if (!S_ISREG(st.st_mode)) return Refuse(path, "not a regular file");
    const UInt fileSize = static_cast<UInt>(st.st_size);

    Elf64_Ehdr header{};
    if (fileSize < sizeof(header) || !ReadAt(file.fd, &header, sizeof(header), 0) ||
        std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
        return Refuse(path, "not an ELF file");
    }
    if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != NATIVE_DATA ||
        header.e_machine != NATIVE_MACHINE) {
        return Refuse(path, "an ELF file for another machine");
    }
    if (header.e_type != ET_DYN) return Refuse(path, "not an ELF shared object");
    if (header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phnum == 0 ||
        !Inside(header.e_phoff, sizeof(Elf64_Phdr), header.e_phnum, fileSize)) {
        return Refuse(path, "truncated or damaged (program headers outside the file)");
    }
    if (header.e_shoff != 0 &&
        (header.e_shentsize != sizeof(Elf64_Shdr) ||
         !Inside(header.e_shoff, sizeof(Elf64_Shdr), header.e_shnum, fileSize))) {
        return Refuse(path, "truncated or damaged (section headers outside the file)");
    }
    std::vector<Elf64_Phdr> segments(header.e_phnum);
    if (!ReadAt(file.fd, segments.data(), segments.size() * sizeof(Elf64_Phdr),
                static_cast<off_t>(header.e_phoff))) {
        return Refuse(path, "cannot read its program headers");
    }
    for (const Elf64_Phdr& s : segments) {
        if (s.p_type != PT_LOAD && s.p_type != PT_DYNAMIC && s.p_type != PT_INTERP) continue;
        if (!Inside(s.p_offset, s.p_filesz, 1, fileSize)) {
            return Refuse(path, FormatMessage("truncated: a segment ends at byte @, the file has @",
                                              {std::to_string(s.p_offset + s.p_filesz),
                                               std::to_string(fileSize)}));
        }
    }
    return OK;
}

}  // namespace quorv::host
