#!/usr/bin/python3
"""Damages a transport stream in many ways, records it and prints whether the recording knows what
it misses.

usage: bench/damage.py [--patterns N] [--first N] [--seed N] [--build FOLDER] [--keep FOLDER]

--patterns: so many patterns (default 1000), each from the seed and its number. One in two has AAC
sound, the others have MPEG layer 2. --first begins with another number; --keep leaves the streams
and recordings of the patterns that failed in a folder.

Each pattern damages the programme in one to three places: bursts of lost packets in one or both
tracks, up to five whole seconds out, jumps of the clock, packets that the receiver has marked as
wrong, and wrong bits that nobody has marked. In one pattern of four the clock also wraps. Each
recording has to hold:

- reported: every picture and every PES packet of sound that lost a packet or is marked is listed,
  to within a frame, and as much sound is listed as missing as was lost, to within a frame in each
  place.
- only: nothing is listed where nothing was damaged. Wrong bits may be listed; a demuxer cannot
  know of them.
- jumps: every jump of the clock is listed with its length and nothing else is.
- sync: the programme flashes and beeps once a second. Each flash and each beep that the damage has
  left is in the recording, and both are as far apart as in a recording without damage, to within a
  picture.

The build folder (default build/release) needs `tdmbrec`. Also needs ffmpeg. The 1,000 patterns take
about seven minutes on two processors.
"""
import argparse
import array
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile

from measuring import FFMPEG, ROOT, run
from transport_stream import (AUDIO, CLOCK_HZ, CLOCK_TICKS, COUNTER_VALUES, TransportStream, VIDEO,
                              adts_bytes, begins_pes, elementary_offset, move_clock)

SECONDS = 24
PICTURE = 1 / 30
GROUP = 30                 # pictures from one key frame to the next
FLASH_BEGIN = 0.5          # in each second
DAMAGED_FROM, DAMAGED_TO = 1.2, 21.5
APART = 2.5                # seconds between two damages
MOST_CUT = 2000            # packets at a jump of the clock
PIDS = {VIDEO: 256, AUDIO: 257}
RATE = 16000               # of the decoded sound
LOUD = 1200                # of 32768: nothing but a beep is
NO_STORAGE = 6             # exit code of the command
SKIPPED = 77               # of this script
MARKED = 0x80              # transport_error_indicator, in the second byte
SOUND = {'mp2': (1152 / 48000, lambda stream, at: 288),
         'aac': (1024 / 48000, adts_bytes)}

# What a pattern did: the packets that are lost, those that are lost at a jump of the clock, those
# that are marked, those with wrong bits, and the jumps of the clock as (first packet, seconds by
# which the clock differs afterwards).
Pattern = collections.namedtuple('Pattern',
                                 'number coding lost cut marked bits jumps wraps names')
Event = collections.namedtuple('Event', 'seconds identity')


def make_base(folder, coding):
    path = folder / f'{coding}.ts'
    flash = f'between(mod(T\\,1)\\,{FLASH_BEGIN - 1e-4}\\,{FLASH_BEGIN + 0.0999})'
    picture = (f'color=black:s=160x120:r=30:d={SECONDS},geq=cb=128:cr=128:'
               f"lum='16+if({flash}\\,40+7*floor(T)\\,0)+mod(X*Y+N*3*mod(X\\,7)\\,9)'")
    beep = (f"aevalsrc='if(between(mod(t,1),{FLASH_BEGIN},{FLASH_BEGIN + 0.1}),"
            f"0.5*sin(2*PI*(500+60*floor(t))*t),0.002*sin(2*PI*300*t))':s=48000:d={SECONDS}")
    run(FFMPEG + ['-f', 'lavfi', '-i', picture, '-f', 'lavfi', '-i', beep, '-c:v', 'libx264',
                  '-profile:v', 'baseline', '-g', GROUP, '-keyint_min', GROUP, '-sc_threshold', 0,
                  '-bf', 0, '-b:v', '250k', '-pix_fmt', 'yuv420p', '-threads', 1, '-c:a', coding,
                  '-b:a', '96k', '-f', 'mpegts', path])
    seconds, frame_bytes = SOUND[coding]
    return TransportStream(path.read_bytes(), PIDS, PICTURE, frame_bytes, seconds)


def places(chance):
    """returns: one to three times, with some distance between them"""
    count = chance.choice((1, 1, 2, 3))
    while True:
        found = sorted(chance.uniform(DAMAGED_FROM, DAMAGED_TO) for _ in range(count))
        if all(b - a > APART for a, b in zip(found, found[1:])):
            return found


def packets_from(base, begin, tracks, count):
    """returns: the places of the next packets of these tracks"""
    found = []
    for index in range(begin, len(base.packets)):
        if len(found) == count:
            break
        if base.packets[index].track in tracks:
            found.append(index)
    return found


def packets_between(base, begin_seconds, seconds, tracks):
    places_between = range(base.index_at(begin_seconds), base.index_at(begin_seconds + seconds))
    return [i for i in places_between if base.packets[i].track in tracks]


def make_pattern(base, coding, number, seed):
    chance = random.Random(f'{seed} {number}')
    lost, cut, marked, bits, jumps, names = set(), set(), set(), {}, [], []
    begins = places(chance)
    for seconds, after in zip(begins, begins[1:] + [SECONDS]):
        begin = base.index_at(seconds) + chance.randrange(5)
        name = chance.choice(('burst', 'burst', 'bursts', 'out', 'jump', 'splice', 'marked',
                              'bits'))
        tracks = chance.choice(((VIDEO,), (AUDIO,), (VIDEO, AUDIO)))
        if name == 'burst':
            lost.update(packets_from(base, begin, tracks, chance.randint(1, 40)))
        elif name == 'bursts':
            for each in range(begin, begin + 120, 40):
                lost.update(packets_from(base, each, tracks, chance.randint(1, 4)))
        elif name == 'out':
            # Until the next damage, and not to the end of the stream, which shows no loss.
            longest = min(5, after - seconds - 1)
            lost.update(packets_between(base, seconds, chance.uniform(0.5, longest), tracks))
        elif name == 'marked':
            marked.update(packets_from(base, begin, tracks, chance.randint(1, 6)))
        elif name == 'bits':
            for index in packets_from(base, begin, tracks, chance.randint(1, 20)):
                bits[index] = chance.randrange(1 << 30)
        else:
            far = chance.choice((chance.uniform(15, 60), chance.uniform(60, 90000)))
            jumps.append((begin, chance.choice((-1, 1)) * far))
            if name == 'splice':
                cut.update(i for i in packets_between(base, seconds, chance.uniform(0.3, 1.5),
                                                      (VIDEO, AUDIO)) if i >= begin)
        names.append(f'{name} {"+".join(tracks)} at {seconds:.2f}')
    wraps = chance.random() < 0.25
    return Pattern(number, coding, lost, cut, marked, bits, jumps, wraps, names)


def flip_bits(data, seed):
    """returns: the packet with one to eight wrong bits, none of them in a header"""
    chance = random.Random(seed)
    begin = elementary_offset(data)
    flipped = bytearray(data)
    for _ in range(chance.randint(1, 8)):
        if begin < len(data):
            flipped[chance.randrange(begin, len(data))] ^= 1 << chance.randrange(8)
    return bytes(flipped)


def apply(base, pattern):
    """returns: the image of the damaged stream"""
    wrap_at = int((SECONDS / 2 + base.begin[VIDEO]) * CLOCK_HZ)
    clock = CLOCK_TICKS - wrap_at if pattern.wraps else 0
    jumps = dict(pattern.jumps)
    image = []
    for index, packet in enumerate(base.packets):
        clock += round(jumps.get(index, 0) * CLOCK_HZ)
        if index in pattern.lost or index in pattern.cut:
            continue
        data = move_clock(packet.data, clock, PIDS.values())
        if index in pattern.marked:
            data = data[:1] + bytes([data[1] | MARKED]) + data[2:]
        if index in pattern.bits:
            data = flip_bits(data, pattern.bits[index])
        image.append(data)
    return b''.join(image)


def skip(reason):
    print(f'damage.py: skipped: {reason}')
    sys.exit(SKIPPED)


def record(tdmbrec, stream, output):
    result = subprocess.run([tdmbrec, 'record', stream, '--json', '--force', '--output', output],
                            text=True, check=False, capture_output=True)
    if result.returncode != 0:
        return {'losses': [], 'status': result.returncode,
                'failure': f'exit code {result.returncode}: {result.stderr}'}
    return json.loads(result.stdout)


def find_flashes(log):
    found, was_bright = [], False
    for seconds, mean in re.findall(r'pts_time:([\d.]+) .*? mean:\[(\d+)\]', log):
        is_bright = int(mean) > 35
        if is_bright and not was_bright:
            found.append(Event(float(seconds), int(mean)))
        was_bright = is_bright
    return found


def find_beeps(sound):
    found, at, length = [], 0, int(0.07 * RATE)
    window = RATE // 500
    while at + 2 * length < len(sound):
        if max(map(abs, sound[at:at + window])) <= LOUD:
            at += window
            continue
        begin = next(i for i in range(at, at + window) if abs(sound[i]) > LOUD)
        tone = sound[begin + RATE // 100:begin + RATE // 100 + length]
        crossings = sum((a < 0) != (b < 0) for a, b in zip(tone, tone[1:]))
        found.append(Event(begin / RATE, crossings))
        at = begin + int(0.15 * RATE)
    return found


def find_events(path):
    """Decodes a recording. returns: its flashes and its beeps"""
    result = subprocess.run(
        ['ffmpeg', '-nostdin', '-hide_banner', '-threads', '1', '-i', path, '-map', '0:v', '-vf',
         'scale=1:1,format=gray,showinfo', '-f', 'null', '-', '-map', '0:a', '-ac', '1', '-ar',
         str(RATE), '-f', 's16le', 'pipe:1'], check=False, capture_output=True)
    sound = array.array('h', result.stdout[:len(result.stdout) // 2 * 2])
    return find_flashes(result.stderr.decode(errors='replace')), find_beeps(sound)


class Judge:
    """Compares what one recording reports and holds with what its pattern did."""

    def __init__(self, base, pattern, summary):
        self.base, self.pattern, self.summary = base, pattern, summary
        self.problems = []
        self.worst = collections.Counter()
        self.shifts = self._shifts()

    def require(self, held, text):
        if not held:
            self.problems.append(text)

    def note(self, name, value):
        self.worst[name] = max(self.worst[name], value)

    def _lost_seconds(self, index):
        """returns: the least that the tracks lost at a jump, with which it is closed"""
        lengths = []
        for track in (VIDEO, AUDIO):
            at = index
            while at in self.pattern.cut or (at < len(self.base.packets) and
                                              self.base.packets[at].track != track):
                at += 1
            before = next(i for i in range(index - 1, 0, -1)
                          if self.base.packets[i].track == track)
            lengths.append(self.base.time_of(track, self.base.packets[at].first) -
                           self.base.time_of(track, self.base.packets[before].last + 1))
        return max(min(lengths), 0)

    def _shifts(self):
        """Compares the jumps. returns: (first packet, shift of the time afterwards) for each"""
        reported = [one for one in self.summary['losses'] if one['what'] == 'the clock jumps']
        self.require(len(reported) == len(self.pattern.jumps),
                     f'{len(reported)} jumps reported of {len(self.pattern.jumps)}')
        shifts, sum_of_shifts = [], 0
        for (index, seconds), one in zip(self.pattern.jumps, reported):
            away = abs(one['seconds'] - seconds - self._lost_seconds(index))
            away = min(away, abs(away - CLOCK_TICKS / CLOCK_HZ))  # the clock wraps
            self.require(away < 2 * PICTURE,
                         f'a jump of {seconds:.3f} s is reported as {one["seconds"]:.3f} s')
            self.note('length of a jump', away)
            sum_of_shifts += seconds - one['seconds']
            sum_of_shifts -= round(sum_of_shifts * CLOCK_HZ / CLOCK_TICKS) * CLOCK_TICKS / CLOCK_HZ
            shifts.append((index, sum_of_shifts))
        return shifts

    def place(self, track, number, index):
        """returns: when a frame in a packet is in the recording"""
        shift = 0
        for first, seconds in self.shifts:
            shift = seconds if index >= first else shift
        return self.base.time_of(track, number) + shift

    def spans(self, indexes, track, reach):
        """returns: when the frames are in the recording that these packets may have damaged; reach:
        in PES packets"""
        found = []
        pes_begins = {}
        for number, pes in enumerate(self.base.pes_of_frame[track]):
            pes_begins.setdefault(pes, number)
        last_pes = self.base.pes_of_frame[track][-1]
        for index in sorted(indexes):
            packet = self.base.packets[index]
            if packet.track != track:
                continue
            first = pes_begins[max(self.base.pes_of_frame[track][packet.first] - reach, 0)]
            after = self.base.pes_of_frame[track][packet.last] + reach + 1
            end = pes_begins[after] if after <= last_pes else self.base.frames(track)
            found.append((self.place(track, first, index), self.place(track, end, index)))
        return found

    def reported(self, track):
        return [(one['at_seconds'], one['at_seconds'] + max(one['seconds'], 0))
                for one in self.summary['losses'] if one['track'] == track]

    def known(self, track):
        """returns: the damaged packets of which a demuxer can know. A continuity counter does not
        show that a multiple of sixteen packets is lost. A mark on the head of a PES packet belongs
        to the one before, which may be complete already."""
        lost = [i for i in sorted(self.pattern.lost) if self.base.packets[i].track == track]
        runs = []
        order = [i for i, one in enumerate(self.base.packets) if one.track == track]
        rank = {index: at for at, index in enumerate(order)}
        for index in lost:
            if runs and rank[index] == rank[runs[-1][-1]] + 1:
                runs[-1].append(index)
            else:
                runs.append([index])
        known = [i for run_ in runs if len(run_) % COUNTER_VALUES != 0 for i in run_]
        marked = [i for i in self.pattern.marked if self.base.packets[i].track == track]
        return known + [i for i in marked
                        if track == VIDEO or not begins_pes(self.base.packets[i].data)]

    def check_lists(self):
        damaged = self.pattern.lost | self.pattern.marked | set(self.pattern.bits)
        slack = {VIDEO: PICTURE, AUDIO: self.base.seconds_of_frame[AUDIO]}
        for track in (VIDEO, AUDIO):
            allowed = self.spans(damaged, track, 1) + self.around_jumps(track)
            reported = self.reported(track)
            for begin, end in reported:
                self.require(is_covered(begin, end, allowed, slack[track]),
                             f'{track} {begin:.3f} to {end:.3f} s is reported, but not damaged')
            for begin, end in self.spans(self.known(track), track, 0):
                near = [r for r in reported
                        if r[0] <= end + slack[track] and r[1] >= begin - slack[track]]
                self.require(near, f'{track} {begin:.3f} to {end:.3f} s is damaged, but not '
                             'reported')

    def around_jumps(self, track):
        """returns: the times in which the tracks cross a jump one by one, and what is cut there"""
        found = []
        for index, _ in self.pattern.jumps:
            cut = {i for i in self.pattern.cut if index <= i < index + MOST_CUT}
            near = self.spans(jumps_nearby(self.base, {index, max(cut, default=index)}) | cut,
                              track, 1)
            found.append((min(near)[0], max(end for _, end in near)))
        return found

    def lost_sound(self):
        """returns: the frames of sound that are lost, with all of a PES packet without its head"""
        lost = self.base.frames_in(self.pattern.lost, AUDIO)
        headless = {self.base.packets[i].pes for i in self.pattern.lost
                    if self.base.packets[i].track == AUDIO and
                    begins_pes(self.base.packets[i].data)}
        return lost | {number for number, pes in enumerate(self.base.pes_of_frame[AUDIO])
                       if pes in headless}

    def check_missing_sound(self):
        lost, hit = self.lost_sound(), self.base.frames_in(self.pattern.lost, AUDIO)
        frame = self.base.seconds_of_frame[AUDIO]
        if self.pattern.jumps or self.pattern.bits or self.pattern.marked:
            return
        missing = sum(one['seconds'] for one in self.summary['losses']
                      if one['track'] == AUDIO and one['done'] != 'kept')
        places_of_loss = sum(1 for number in hit if number - 1 not in hit)
        # What is left of a PES packet without its head may fill the one before.
        away = max(len(hit) * frame - missing - 2 * frame * places_of_loss,
                   missing - len(lost) * frame, 0)
        self.require(away <= 1.01 * frame * max(places_of_loss, 1),
                     f'{missing:.3f} s of sound reported as missing of {len(lost) * frame:.3f} s')
        self.note('missing sound', away)

    def is_whole(self, second, damaged):
        """returns: whether the damage has left the flash and the beep of a second"""
        begin = second * GROUP
        if any(number in damaged[VIDEO] for number in range(begin, begin + GROUP)):
            return False
        for number, pes in enumerate(self.base.pes_of_frame[AUDIO]):
            time = self.base.time_of(AUDIO, number)
            if second + FLASH_BEGIN - 0.1 < time < second + FLASH_BEGIN + 0.15 and (
                    pes in damaged[AUDIO] or pes - 1 in damaged[AUDIO]):
                return False
        return True

    def check_sync(self, events, base_events):
        packets = self.pattern.lost | self.pattern.marked | set(self.pattern.bits)
        packets = packets | self.pattern.cut
        packets = packets | jumps_nearby(self.base, {first for first, _ in self.pattern.jumps})
        damaged = {VIDEO: self.base.frames_in(packets, VIDEO),
                   AUDIO: {self.base.packets[i].pes for i in packets
                           if self.base.packets[i].track == AUDIO}}
        for number in list(damaged[VIDEO]):  # the head of the next one may be taken with it
            damaged[VIDEO].add(number + 1)
        compared = 0
        for second in range(SECONDS - 1):
            if self.is_whole(second, damaged):
                compared += 1
                self.compare_events(second, events, base_events)
        return compared

    def compare_events(self, second, events, base_events):
        (base_flash, base_beep) = (base_events[0][second], base_events[1][second])
        flash = [one for one in events[0] if abs(one.identity - base_flash.identity) <= 3]
        beep = [one for one in events[1] if abs(one.identity - base_beep.identity) <= 3]
        self.require(flash, f'the flash of second {second} is lost')
        self.require(beep, f'the beep of second {second} is lost')
        if flash and beep:
            base_offset = base_beep.seconds - base_flash.seconds
            away = min(abs(b.seconds - f.seconds - base_offset) for f in flash for b in beep)
            self.require(away <= PICTURE, f'flash and beep of second {second} are '
                         f'{away * 1000:.1f} ms further apart')
            self.note('sync', away)


def jumps_nearby(base, jumps):
    """returns: the packets around the jumps of the clock: the tracks cross them one by one"""
    return {index for first in jumps
            for index in range(max(first - 60, 0), min(first + 60, len(base.packets)))}


def is_covered(begin, end, spans, slack):
    """returns: whether the spans, taken together, hold the time from begin to end"""
    at = begin
    for first, last in sorted(spans):
        if first - slack <= at:
            at = max(at, last + slack)
    return at >= end and any(first - slack <= begin <= last + slack for first, last in spans)


class Bench:
    def __init__(self, options, folder):
        self.tdmbrec = options.build.resolve() / 'bin/tdmbrec'
        self.options, self.folder = options, folder
        self.bases = {coding: make_base(folder, coding) for coding in SOUND}
        self.events = {}
        for coding in SOUND:
            summary = record(self.tdmbrec, folder / f'{coding}.ts', folder / f'{coding}.mp4')
            if summary.get('status') == NO_STORAGE:
                skip('no storage')
            if summary['losses'] or 'failure' in summary:
                sys.exit(f'damage.py: the programme without damage has losses: {summary}')
            self.events[coding] = find_events(folder / f'{coding}.mp4')
            if [len(events) for events in self.events[coding]] != [SECONDS, SECONDS]:
                sys.exit('damage.py: the flashes and beeps of the programme are not found')

    def judge(self, number):
        coding = list(SOUND)[number % len(SOUND)]
        base = self.bases[coding]
        pattern = make_pattern(base, coding, number, self.options.seed)
        stream, output = self.folder / f'{number}.ts', self.folder / f'{number}.mp4'
        stream.write_bytes(apply(base, pattern))
        summary = record(self.tdmbrec, stream, output)
        judge = Judge(base, pattern, summary)
        if 'failure' in summary:
            judge.problems = [summary['failure']]
            compared = 0
        else:
            judge.check_lists()
            judge.check_missing_sound()
            compared = judge.check_sync(find_events(output), self.events[coding])
        if judge.problems and self.options.keep:
            shutil.copy(stream, self.options.keep)
            (self.options.keep / f'{number}.json').write_text(json.dumps(summary, indent=1))
        for path in (stream, output):
            path.unlink(missing_ok=True)
        return pattern, judge, compared


def read_options():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--patterns', type=int, default=1000)
    parser.add_argument('--first', type=int, default=0)
    parser.add_argument('--seed', type=int, default=1)
    parser.add_argument('--build', type=pathlib.Path, default=ROOT / 'build/release')
    parser.add_argument('--keep', type=pathlib.Path)
    return parser.parse_args()


def main():
    options = read_options()
    if not shutil.which('ffmpeg'):
        skip('no ffmpeg')
    if options.keep:
        options.keep.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(options, pathlib.Path(folder).resolve())
        numbers = range(options.first, options.first + options.patterns)
        held, compared, worst = 0, 0, collections.Counter()
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            for pattern, judge, pairs in pool.map(bench.judge, numbers):
                held += not judge.problems
                compared += pairs
                for name, value in judge.worst.items():
                    worst[name] = max(worst[name], value)
                if judge.problems:
                    print(f'pattern {pattern.number} ({pattern.coding}'
                          f'{", wraps" if pattern.wraps else ""}: {"; ".join(pattern.names)}):',
                          flush=True)
                    for problem in judge.problems[:6]:
                        print(f'  {problem}')
    print(f'seed {options.seed}: {options.patterns} patterns, {held} held; {compared} flashes with '
          f'their beeps compared')
    for name, value in sorted(worst.items()):
        print(f'worst deviation, {name}: {value * 1000:.1f} ms')
    sys.exit(0 if held == options.patterns else 1)


if __name__ == '__main__':
    main()
