#include "mp4read/box_reader.h"

#include <algorithm>
#include <set>

namespace mp4_reader {

// No real file reaches these; they bound the memory and the stack that a hostile one can take.
static constexpr size_t kMaxFaults = 100;
static constexpr size_t kMaxBoxes = 1 << 16;
static constexpr unsigned kMaxDepth = 8;

bool check(reading &state, bool valid, const std::string &text)
{
    if (!valid && state.faults.size() < kMaxFaults) {
        const std::string fault = state.where + text;
        if (std::find(state.faults.begin(), state.faults.end(), fault) == state.faults.end()) {
            state.faults.push_back(fault);
        }
    }
    return valid;
}

bool limit(reading &state, bool within, const std::string &text)
{
    if (!within && state.notes.size() < kMaxFaults) {
        state.notes.push_back(state.where + text);
    }
    return within;
}

std::vector<box> read_boxes(reading &state, bytes image, unsigned depth)
{
    static const std::set<std::string> containers = {"moov", "trak", "mdia", "minf",
                                                     "dinf", "stbl", "udta"};
    std::vector<box> found;
    while (!image.empty() &&
           check(state, state.boxes < kMaxBoxes, "too many boxes to read them all")) {
        cursor in = {image};
        box next;
        next.size = in.u32();
        next.type = in.text();
        if (next.size == 1) { // largesize
            next.size = in.number(8);
        } else if (next.size == 0 && depth == 0) { // up to the end of the file
            next.size = image.size();
        }
        const size_t header_bytes = image.size() - in.data.size();
        if (!check(state, !in.overrun && next.size >= header_bytes && next.size <= image.size(),
                   "box " + printable(next.type) +
                       (depth == 0 ? " extends beyond the end of the file"
                                   : " extends beyond its container"))) {
            break;
        }
        next.payload = in.take(next.size - header_bytes);
        if (containers.count(next.type) != 0 &&
            check(state, depth < kMaxDepth, "boxes are nested too deeply")) {
            next.children = read_boxes(state, next.payload, depth + 1);
        }
        image = in.data;
        found.push_back(std::move(next));
        state.boxes++;
    }
    return found;
}

const box *find(const std::vector<box> &boxes, const std::string &path)
{
    const size_t slash = path.find('/');
    const auto found = std::find_if(boxes.begin(), boxes.end(), [&](const box &each) {
        return each.type == path.substr(0, slash);
    });
    if (found == boxes.end() || slash == std::string::npos) {
        return found == boxes.end() ? nullptr : &*found;
    }
    return find(found->children, path.substr(slash + 1));
}

std::string printable(const std::string &type)
{
    std::string text = type;
    std::replace_if(
        text.begin(), text.end(), [](char each) { return each < ' ' || each > '~'; }, '?');
    return text;
}

} // namespace mp4_reader
