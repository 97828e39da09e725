#include "tests/support/programme.h"

#include "tests/support/own_files.h"

#include <cstring>
#include <fstream>
#include <stdexcept>

static constexpr int64_t kStartUs = 1000000;  // of the first picture and the first PCM buffer
static constexpr size_t kWavHeaderBytes = 44; // of the sample

Bytes read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    Bytes bytes(static_cast<size_t>(file.tellg()));
    file.seekg(0);
    file.read(reinterpret_cast<char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

std::vector<Bytes> split_nal_units(const Bytes &data)
{
    std::vector<Bytes> units;
    size_t zeros = 0;
    size_t begin = SIZE_MAX;
    const auto finish = [&](size_t end) {
        if (begin == SIZE_MAX) {
            return;
        }
        while (end > begin && data[end - 1] == 0) {
            end--;
        }
        units.emplace_back(data.begin() + static_cast<ptrdiff_t>(begin),
                           data.begin() + static_cast<ptrdiff_t>(end));
    };
    for (size_t i = 0; i < data.size(); i++) {
        if (data[i] == 1 && zeros >= 2) {
            finish(i - zeros);
            begin = i + 1;
        }
        zeros = data[i] == 0 ? zeros + 1 : 0;
    }
    finish(data.size());
    return units;
}

Bytes join_nal_units(const std::vector<Bytes> &units)
{
    Bytes data;
    for (const Bytes &unit : units) {
        data.insert(data.end(), {0, 0, 0, 1});
        data.insert(data.end(), unit.begin(), unit.end());
    }
    return data;
}

// Every slice of the sample is one picture; parameter sets belong to the slice after them.
static std::vector<Bytes> split_access_units(const Bytes &stream)
{
    std::vector<Bytes> access_units;
    std::vector<Bytes> current;
    for (const Bytes &unit : split_nal_units(stream)) {
        current.push_back(unit);
        const int type = unit[0] & 0x1F;
        if (type == 1 || type == 5) {
            access_units.push_back(join_nal_units(current));
            current.clear();
        }
    }
    return access_units;
}

const Programme &sample_programme()
{
    static const Programme programme = [] {
        const Bytes wav = read_file(source_file("samples/programme.wav"));
        Programme result{split_access_units(read_file(source_file("samples/programme.h264"))), {}};
        result.pcm.resize((wav.size() - kWavHeaderBytes) / sizeof(int16_t));
        memcpy(result.pcm.data(), wav.data() + kWavHeaderBytes, wav.size() - kWavHeaderBytes);
        return result;
    }();
    return programme;
}

int64_t video_time_us(size_t index)
{
    return kStartUs + static_cast<int64_t>(index) * 1000000 / kPicturesPerSecond;
}

int64_t audio_time_us(size_t index)
{
    return kStartUs +
           static_cast<int64_t>(index) * kPcmBufferSamples * 1000000 / kPcmSamplesPerSecond;
}

size_t pcm_buffer_count(const Programme &programme)
{
    return (programme.pcm.size() * sizeof(int16_t) + kPcmBufferBytes - 1) / kPcmBufferBytes;
}

Bytes pcm_buffer(const Programme &programme, size_t index)
{
    Bytes data(kPcmBufferBytes);
    const size_t total = programme.pcm.size() * sizeof(int16_t);
    const size_t begin = index * kPcmBufferBytes;
    if (begin < total) {
        memcpy(data.data(), reinterpret_cast<const uint8_t *>(programme.pcm.data()) + begin,
               std::min(kPcmBufferBytes, total - begin));
    }
    return data;
}
