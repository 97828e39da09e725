#!/usr/bin/python3
"""Interrupts recordings at random instants, recovers them and prints what was lost.

usage: bench/interruptions.py [--kills N] [--cuts N] [--seconds S] [--checkpoint S] [--seed N]
                              [--build FOLDER]

--kills: so many paced recordings, each ended by `kill -9` at a random instant (default 200).
--cuts: so many images of an ext4 file system on which four paced recordings are under way, each
image as a power cut between two writes to the device would leave it (default 50). They need root
and loop devices; without them this part is skipped.

Each recovered file has to equal the file of a normal stop after the last frame that is whole in
what was left, and at most the interval of the checkpoints and half a second of programme may be
lost. What was recorded until the interruption is measured by the clock: from the birth of the
recording's folder, which is before the first picture is sent, until the kill is sent or the image
is complete. This is more than what was really sent, so that the losses printed are too high
rather than too low.

The build folder (default build/release) needs `tdmbrec` and `normal_stop`. The recordings are made
below TMPDIR. Takes about four minutes, most of it waiting.
"""
import argparse
import collections
import concurrent.futures
import filecmp
import os
import pathlib
import random
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

from measuring import ROOT, SAMPLE_SECONDS, run, write_loop

AT_ONCE = 30         # recordings under way
LATEST_START = 2     # seconds, so that they do not all start at the same time
CUT_RECORDINGS = 4   # on each image
SLACK_SECONDS = 0.5  # beyond the interval of the checkpoints
IMAGE_BYTES = 192 << 20
FILE_HEAD_BYTES = 0x24

Frame = collections.namedtuple('Frame', 'end time_ms kind')
# An interrupted recording: what was left in its folder, and the seconds from its begin to its end.
Remains = collections.namedtuple('Remains', 'name folder recorded_seconds')
Outcome = collections.namedtuple('Outcome', 'verdict lost_seconds')

EQUAL = 'equal to the normal stop'
NOTHING = 'interrupted before the first whole frame was written'
GOOD = (EQUAL, NOTHING)


class Lab:
    """The programs, the input and the recording that was not interrupted."""

    def __init__(self, options, folder):
        self.programs = options.build / 'bin'
        self.checkpoint = options.checkpoint
        self.folder = folder
        self.seconds = round(options.seconds / SAMPLE_SECONDS) * SAMPLE_SECONDS
        self.video, self.audio = write_loop(folder, self.seconds)
        self.whole = folder / 'whole.mp4'
        self.frames, self.image = [], b''

    def start(self, output, *more):
        command = [self.programs / 'tdmbrec', 'record', '--realtime', '--video', self.video,
                   '--audio', self.audio, '--output', output, *more]
        return subprocess.Popen([str(word) for word in command], stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)

    def start_interrupted(self, output):
        return self.start(output, '--checkpoint', self.checkpoint)

    def take_whole(self, process):
        if process.wait() != 0:
            sys.exit('interruptions.py: the recording without an interruption has failed')
        listing = run([self.programs / 'normal_stop', self.whole])
        for line in listing.splitlines():
            end, time_ms, kind = line.split()
            self.frames.append(Frame(int(end), int(time_ms), kind))
        self.image = self.whole.read_bytes()


def birth_of(folder):
    """returns: the time at which the folder was made, None while there is none"""
    result = subprocess.run(['stat', '-c', '%.9W', folder], check=False, capture_output=True,
                            text=True)
    if result.returncode != 0:
        return None
    birth = float(result.stdout)
    if birth == 0:
        sys.exit(f'interruptions.py: no times of birth on the file system of {folder}')
    return birth


def await_birth(folder, process):
    while (birth := birth_of(folder)) is None:
        if process.poll() is not None:
            sys.exit('interruptions.py: a recording has not begun')
        time.sleep(0.01)
    return birth


def recording_folder(output):
    return output.with_name(output.name + '.recording')


def kill_one(lab, number, instant, delay):
    time.sleep(delay)
    output = lab.folder / f'kill{number}.mp4'
    folder = recording_folder(output)
    process = lab.start_interrupted(output)
    birth = await_birth(folder, process)
    time.sleep(max(birth + instant - time.time(), 0))
    process.send_signal(signal.SIGKILL)
    done = time.time()
    status = process.wait()
    if status != -signal.SIGKILL:
        sys.exit(f'interruptions.py: a recording ended by itself, with {status}')
    return Remains(f'kill {number} after {instant:.3f} s', folder, done - birth)


def kill_many(lab, count, chance):
    jobs = [(number, chance.uniform(0.1, lab.seconds - 0.5), chance.uniform(0, LATEST_START))
            for number in range(count)]
    process = lab.start(lab.whole, '--checkpoint', '0')
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        remains = list(pool.map(lambda job: kill_one(lab, *job), jobs))
    lab.take_whole(process)
    return remains


def writes_of(device):
    """returns: the writes that the device has completed and its requests under way"""
    words = pathlib.Path(f'/sys/block/{device}/stat').read_text(encoding='ascii').split()
    return words[4], words[6], words[8]


def copy_image(device, image, copy):
    """Copies the image between two writes to it. returns: the time at which it was complete"""
    while True:
        before = writes_of(device)
        run(['cp', '--sparse=auto', image, copy])
        done = time.time()
        if before[2] == '0' and writes_of(device) == before:
            return done


def take_remains(lab, image, names, births, done):
    """Mounts an image, which replays the file system's journal, and copies what was left."""
    mount = lab.folder / 'mount'
    mount.mkdir(exist_ok=True)
    run(['mount', '-o', 'loop', image, mount])
    remains = []
    for name in names:
        folder = lab.folder / f'{image.name}-{name}.recording'
        folder.mkdir()
        source = recording_folder(mount / name)
        if source.is_dir():
            shutil.copytree(source, folder, dirs_exist_ok=True)
        remains.append(Remains(f'{name} in {image.name}', folder, done - births[name]))
    run(['umount', mount])
    return remains


def cut_many(lab, count, chance, memory):
    image, disk = memory / 'disk.img', lab.folder / 'disk'
    with open(image, 'wb') as file:
        file.truncate(IMAGE_BYTES)
    run(['mkfs.ext4', '-q', '-F', '-E', 'lazy_itable_init=0,lazy_journal_init=0', image])
    disk.mkdir()
    run(['mount', '-o', 'loop', image, disk])
    try:
        device = os.path.basename(run(['findmnt', '-n', '-o', 'SOURCE', disk]).strip())
        names = [f'cut{i}.mp4' for i in range(CUT_RECORDINGS)]
        processes, births = {}, {}
        for name in names:
            processes[name] = lab.start_interrupted(disk / name)
            births[name] = await_birth(recording_folder(disk / name), processes[name])
            time.sleep(chance.uniform(0, 0.3))
        copies = []
        last = max(births.values())
        for instant in sorted(chance.uniform(0.1, lab.seconds - 2) for _ in range(count)):
            time.sleep(max(last + instant - time.time(), 0))
            copy = memory / f'image{len(copies)}'
            copies.append((copy, copy_image(device, image, copy)))
        for process in processes.values():
            process.kill()
            process.wait()
    finally:
        run(['umount', disk])
    return [one for copy, done in copies
            for one in take_remains(lab, copy, names, births, done)]


def whole_frames(lab, path):
    """returns: how many of the first frames are whole in the file"""
    if not path.is_file():
        return 0
    left = path.read_bytes()
    ends = [FILE_HEAD_BYTES] + [frame.end for frame in lab.frames]
    whole = 0
    for begin, end in zip(ends, ends[1:]):
        if left[begin:end] != lab.image[begin:end]:
            break
        whole += 1
    return whole


def judge(lab, remains):
    media = remains.folder / 'recording.mp4'
    whole = whole_frames(lab, media)
    lost = remains.recorded_seconds - (lab.frames[whole - 1].time_ms / 1000 if whole else 0)
    recovered = remains.folder.with_suffix('.recovered.mp4')
    normal = remains.folder.with_suffix('.normal.mp4')
    result = subprocess.run(
        [lab.programs / 'tdmbrec', 'recover', remains.folder, '--output', recovered],
        check=False, capture_output=True, text=True)
    if whole == 0:
        verdict = 'made up from nothing' if recovered.exists() else NOTHING
        return Outcome(verdict, lost)
    if not recovered.exists():
        return Outcome(f'not recovered: {result.stderr.strip()}', lost)
    run([lab.programs / 'normal_stop', lab.whole, whole, normal])
    is_equal = filecmp.cmp(recovered, normal, shallow=False)
    for path in (recovered, normal):
        path.unlink()
    return Outcome(EQUAL if is_equal else 'different', lost)


def report(lab, title, all_remains):
    """Recovers and prints. returns: whether everything is as it has to be"""
    limit = float(lab.checkpoint) + SLACK_SECONDS
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        outcomes = list(pool.map(lambda one: judge(lab, one), all_remains))
    print(f'{title}: {len(outcomes)}')
    for verdict, count in collections.Counter(one.verdict for one in outcomes).most_common():
        print(f'  {verdict}: {count}')
    losses = [one.lost_seconds for one in outcomes]
    print(f'  programme lost: {statistics.mean(losses):.2f} s on average, {max(losses):.2f} s at '
          f'most; {limit:.2f} s are allowed')
    held = True
    for remains, outcome in zip(all_remains, outcomes):
        if outcome.verdict not in GOOD or outcome.lost_seconds > limit:
            held = False
            print(f'  NOT HELD: {remains.name}: {outcome.verdict}, {outcome.lost_seconds:.2f} s '
                  f'lost')
    return held


def why_no_cuts():
    """returns: why images cannot be taken here; empty if they can"""
    if os.geteuid() != 0:
        return 'needs root'
    for program in ('mkfs.ext4', 'mount', 'findmnt', 'unshare'):
        if not shutil.which(program):
            return f'not installed: {program}'
    if not list(pathlib.Path('/dev').glob('loop[0-9]*')):
        return 'no loop devices'
    return ''


def run_parts(options, folder):
    """returns: whether everything is as it has to be"""
    lab = Lab(options, folder)
    chance = random.Random(options.seed)
    print(f'seed {options.seed}, recordings of {lab.seconds} s, checkpoints of '
          f'{lab.checkpoint} s')
    held = report(lab, 'kills', kill_many(lab, options.kills, chance))
    if options.cuts == 0:
        return held
    reason = why_no_cuts()
    if reason:
        print(f'power cuts: skipped: {reason}')
        return held
    memory_root = '/dev/shm' if os.access('/dev/shm', os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory_root) as memory:
        remains = cut_many(lab, options.cuts, chance, pathlib.Path(memory))
    return report(lab, 'power cuts', remains) and held


def read_options():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--kills', type=int, default=200)
    parser.add_argument('--cuts', type=int, default=50)
    parser.add_argument('--seconds', type=int, default=20)
    parser.add_argument('--checkpoint', default='1')
    parser.add_argument('--seed', type=int, default=1)
    parser.add_argument('--build', type=pathlib.Path, default=ROOT / 'build/release')
    return parser.parse_args()


def main():
    options = read_options()
    if os.geteuid() == 0 and os.environ.get('INTERRUPTIONS') is None:
        # In a mount namespace of its own, whose mounts end with it.
        os.environ['INTERRUPTIONS'] = 'isolated'
        os.execvp('unshare', ['unshare', '--mount', sys.executable, *sys.argv])
    with tempfile.TemporaryDirectory() as folder:
        held = run_parts(options, pathlib.Path(folder).resolve())
    sys.exit(0 if held else 1)


if __name__ == '__main__':
    main()
