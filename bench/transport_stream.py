"""A transport stream as packets that know which pictures and sound frames they carry, and ways to
damage it: lost packets, wrong bits, another clock.
"""
import bisect
import collections

PACKET_BYTES = 188
CLOCK_HZ = 90000
CLOCK_TICKS = 1 << 33
VIDEO, AUDIO = 'video', 'audio'
COUNTER_VALUES = 16  # of the continuity counter

# A frame of sound or an access unit: the time on the stream's clock, and its number in the track.
Frame = collections.namedtuple('Frame', 'number seconds')
# A packet: its bytes, its track or None, the numbers of the first and the last frame in it, and the
# number of its PES packet.
Packet = collections.namedtuple('Packet', 'data track first last pes')


def clock_field(data, at):
    """The 33 bits of a time stamp in a PES header."""
    return ((data[at] >> 1 & 7) << 30 | data[at + 1] << 22 | (data[at + 2] >> 1) << 15 |
            data[at + 3] << 7 | data[at + 4] >> 1)


def put_clock_field(data, at, value):
    data[at] = data[at] & 0xF1 | value >> 30 << 1
    data[at + 1] = value >> 22 & 0xFF
    data[at + 2] = data[at + 2] & 1 | (value >> 15 & 0x7F) << 1
    data[at + 3] = value >> 7 & 0xFF
    data[at + 4] = data[at + 4] & 1 | (value & 0x7F) << 1


def payload_offset(data):
    has_adaptation, has_payload = data[3] & 0x20, data[3] & 0x10
    return PACKET_BYTES if not has_payload else 5 + data[4] if has_adaptation else 4


def begins_pes(data):
    return bool(data[1] & 0x40)


def pid_of(data):
    return (data[1] & 0x1F) << 8 | data[2]


def stamp_places(data):
    """returns: where the packet's PES header has its time stamps"""
    at = payload_offset(data)
    flags = data[at + 7] >> 6
    return [at + 9 + 5 * i for i in range({0: 0, 2: 1, 3: 2}[flags])]


def elementary_offset(data):
    at = payload_offset(data)
    return at + 9 + data[at + 8] if begins_pes(data) else at


def adts_bytes(stream, at):
    return (stream[at + 3] & 3) << 11 | stream[at + 4] << 3 | stream[at + 5] >> 5


def move_clock(data, ticks, pids):
    """returns: the packet, sent by a clock that differs by so many ticks"""
    moved = bytearray(data)
    if data[3] & 0x20 and data[4] > 0 and data[5] & 0x10:  # the program clock reference
        base = int.from_bytes(data[6:11], 'big') >> 7
        base = (base + ticks) % CLOCK_TICKS
        moved[6:10] = (base >> 1).to_bytes(4, 'big')
        moved[10] = (base & 1) << 7 | data[10] & 0x7F
    if pid_of(data) in pids and begins_pes(data):
        for at in stamp_places(data):
            put_clock_field(moved, at, (clock_field(data, at) + ticks) % CLOCK_TICKS)
    return bytes(moved)


class TransportStream:
    """A stream of one programme whose PES packets of video hold one access unit each."""

    def __init__(self, image, pids, picture_seconds, sound_frame_bytes, sound_seconds):
        """sound_frame_bytes: gives the size of the frame at a place of the elementary stream"""
        self.pids = {pid: track for track, pid in pids.items()}
        self.seconds_of_frame = {VIDEO: picture_seconds, AUDIO: sound_seconds}
        data = [image[at:at + PACKET_BYTES] for at in range(0, len(image), PACKET_BYTES)]
        self.begin = {}  # of each track, on the stream's clock
        for one in data:
            track = self.pids.get(pid_of(one))
            if track and begins_pes(one) and track not in self.begin:
                self.begin[track] = clock_field(one, stamp_places(one)[0]) / CLOCK_HZ
        self.packets = []
        self.pes_of_frame = {VIDEO: [], AUDIO: []}
        self._number(data, self._frame_begins(data, sound_frame_bytes))

    def _frame_begins(self, data, sound_frame_bytes):
        stream = b''.join(one[elementary_offset(one):] for one in data
                          if self.pids.get(pid_of(one)) == AUDIO)
        begins, at = [], 0
        while at < len(stream):
            begins.append(at)
            at += sound_frame_bytes(stream, at)
        return begins

    def _number(self, data, begins):
        pes, taken = {VIDEO: -1, AUDIO: -1}, 0
        for one in data:
            track = self.pids.get(pid_of(one))
            if track is None:
                self.packets.append(Packet(one, None, 0, 0, 0))
                continue
            pes[track] += begins_pes(one)
            first = last = pes[track]
            if track == AUDIO:
                size = PACKET_BYTES - elementary_offset(one)
                first = bisect.bisect_right(begins, taken) - 1
                last = bisect.bisect_right(begins, taken + max(size, 1) - 1) - 1
                taken += size
            self.packets.append(Packet(one, track, first, last, pes[track]))
            while len(self.pes_of_frame[track]) <= last:
                self.pes_of_frame[track].append(pes[track])

    def frames(self, track):
        return len(self.pes_of_frame[track])

    def time_of(self, track, number):
        """returns: the time of a frame since the first picture"""
        return (self.begin[track] - self.begin[VIDEO] +
                number * self.seconds_of_frame[track])

    def index_at(self, seconds):
        """returns: the place in the stream of the first access unit at or after a time"""
        for index, one in enumerate(self.packets):
            if one.track == VIDEO and self.time_of(VIDEO, one.first) >= seconds:
                return index
        return len(self.packets)

    def frames_in(self, indexes, track):
        """returns: the numbers of the track's frames that these packets carry"""
        found = set()
        for index in indexes:
            one = self.packets[index]
            if one.track == track:
                found.update(range(one.first, one.last + 1))
        return found
