// The detection of cut files, for every length of a file.
#include "client/input/file_end.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

using bytes = std::vector<uint8_t>;

static bytes operator+(bytes left, const bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The lengths at which the file counts as complete.
static std::set<size_t> whole_lengths(const char *format, const bytes &file)
{
    std::set<size_t> lengths;
    const int memory = memfd_create("file", 0);
    EXPECT_EQ(write(memory, file.data(), file.size()), static_cast<ssize_t>(file.size()));
    for (size_t size = file.size(); size > 0; size--) {
        EXPECT_EQ(ftruncate(memory, static_cast<off_t>(size)), 0);
        if (file_cut_text(format, memory, static_cast<int64_t>(size)).empty()) {
            lengths.insert(size);
        }
    }
    close(memory);
    return lengths;
}

TEST(FileEnd, ShowsInWaveAndMatroskaFilesOfEveryLength)
{
    const bytes wave = bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'} +
                       bytes{'L', 'I', 'S', 'T', 3, 0, 0, 0, 1, 2, 3, 0} +
                       bytes{'d', 'a', 't', 'a', 9, 0, 0, 0} + bytes(9);
    std::set<size_t> whole = whole_lengths("wav", wave);
    EXPECT_EQ(whole.upper_bound(31),
              whole.find(wave.size())); // the header of the data box is complete by then

    const bytes block = bytes{0xA3, 0x85} + bytes(5), header = {0x1A, 0x45, 0xDF, 0xA3, 0x81, 7};
    const bytes segment = {0x18, 0x53, 0x80, 0x67}, cluster = {0x1F, 0x43, 0xB6, 0x75};
    const bytes live = {0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}; // no size
    const bytes sized =
        header + segment + bytes{0x40, 26} + cluster + bytes{0x95} + block + block + block;
    EXPECT_EQ(whole_lengths("matroska,webm", sized), (std::set<size_t>{6, sized.size()}));
    // Without sizes, every end of an element may be the end of the file.
    const bytes unsized = header + segment + live + cluster + live + block + block;
    EXPECT_EQ(whole_lengths("matroska,webm", unsized), (std::set<size_t>{6, 18, 30, 37, 44}));
}

TEST(FileEnd, ShowsInTransportStreamsOfEveryLength)
{
    bytes plain, timed, checked;
    for (int i = 0; i < 24; i++) {
        bytes packet = {0x47, 0x41, 0x02, 0x10};
        packet.resize(188);
        plain = plain + packet;
        timed = timed + bytes(4) + packet;
        checked = checked + packet + bytes(16);
    }
    const struct {
        const bytes &file;
        size_t stride, spare; // after the packet
    } forms[] = {{plain, 188, 0}, {timed, 192, 0}, {checked, 204, 16}};
    for (const auto &[file, stride, spare] : forms) {
        const std::set<size_t> whole = whole_lengths("mpegts", file);
        // Nine packets are enough to detect the form.
        for (size_t size = 9 * stride; size <= file.size(); size++) {
            const bool is_whole = size % stride == 0 || (size + spare) % stride == 0;
            EXPECT_EQ(whole.count(size) > 0, is_whole) << stride << " " << size;
        }
    }
}
