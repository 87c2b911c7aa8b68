#include "board.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

namespace soak {
namespace {

void *map_file(const std::string &path, bool create, std::string *why) {
    const int fd = open(path.c_str(),
                        create ? O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC : O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        *why = "cannot open " + path + ": " + strerror(errno);
        return nullptr;
    }
    if (create && ftruncate(fd, sizeof(Board)) != 0) {
        *why = "cannot size " + path + ": " + strerror(errno);
        close(fd);
        return nullptr;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) != sizeof(Board)) {
        *why = path + " is not a board of this build";
        close(fd);
        return nullptr;
    }
    void *p = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);  // the mapping keeps the file
    if (p == MAP_FAILED) {
        *why = "cannot map " + path + ": " + strerror(errno);
        return nullptr;
    }
    return p;
}

}  // namespace

Board *create_board(const std::string &path, const Config &config, std::string *why) {
    void *p = map_file(path, true, why);
    if (p == nullptr)
        return nullptr;
    Board *b = new (p) Board;
    b->config = config;
    return b;
}

Board *open_board(const std::string &path, std::string *why) {
    void *p = map_file(path, false, why);
    if (p == nullptr)
        return nullptr;
    auto *b = static_cast<Board *>(p);
    if (b->magic != Board::kMagic) {
        *why = path + " is not a soak board";
        return nullptr;
    }
    return b;
}

int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace soak
