// Which files descriptors 0 to 2 refer to, for tests of code that redirects
// them and must put them back.
#ifndef QZCAP_TESTS_SUPPORT_STANDARD_STREAMS_H
#define QZCAP_TESTS_SUPPORT_STANDARD_STREAMS_H

#include <sys/stat.h>

#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace qztest {

// Device and inode of descriptors 0, 1 and 2; a descriptor fstat cannot
// read fails the running test.
inline std::vector<std::pair<dev_t, ino_t>> standard_stream_ids() {
    std::vector<std::pair<dev_t, ino_t>> ids;
    for (int fd = 0; fd <= 2; ++fd) {
        struct stat st {};
        EXPECT_EQ(fstat(fd, &st), 0) << "descriptor " << fd;
        ids.emplace_back(st.st_dev, st.st_ino);
    }
    return ids;
}

}  // namespace qztest

#endif  // QZCAP_TESTS_SUPPORT_STANDARD_STREAMS_H
