#!/usr/bin/env python3
"""Judges the muxer's files by programs that read them.

Usage: judge_setups.py LIBRARY [--all]

LIBRARY is libOMX.QVR.tdmbrec.so. Records the set-ups whose files a player can play (codes and
configurations, one track or two, caches, close memory, offsets, append mode, the caller's boxes)
and has ffprobe, ffmpeg, GStreamer, mkvmerge and MediaInfo read them: with --all every set-up,
else so many that every two choices meet. Prints what they say and fails when they say anything.
Exits with 77 when a program is missing.
"""
import ctypes as c
import itertools
import multiprocessing.pool
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SAMPLES = pathlib.Path(__file__).resolve().parents[2] / "samples"
FRAMES = 30
VIDEO, AUDIO = 1, 2
# Bytes for the output and for each track's tables: the muxer's own memory, lent memory that it
# shares out, and lent memory that is shared out already, too little and enough for the tables.
CACHES = [(0, 0), (60000, 0), (100, 100), (0xC0000, 0xC0000)]
# Bytes lent for the close: none, a cache of that size, the whole movie box.
CLOSE_BYTES = [0, 0xC0000, 3000000]
libc = c.CDLL(None)
libc.ftello.restype = c.c_int64
libc.fseeko.argtypes = [c.c_void_p, c.c_int64, c.c_int]
for name in ("ftello", "fclose"):
    getattr(libc, name).argtypes = [c.c_void_p]
for name in ("fread", "fwrite"):
    getattr(libc, name).argtypes = [c.c_void_p, c.c_size_t, c.c_size_t, c.c_void_p]

# mp4_mux_init_t: memory, file and other members.
MEMORY = ["malloc", "free", "memcmp", "memcpy", "memmove", "memset", "realloc"]
FILES = ["fopen", "fread", "fseek", "ftell", "fclose", "feof", "fflush", "fwrite", "remove",
         "fseek64", "ftell64"]
REAL_NAMES = {"ftell": "ftello", "fseek64": "fseeko", "ftell64": "ftello"}


def words(prefix, count):
    return [(f"{prefix}{i}", c.c_void_p) for i in range(count)]


def integers(names, of=c.c_int32):
    return [(name, of) for name in names.split()]


class Init(c.Structure):
    _fields_ = (integers(" ".join(MEMORY), c.c_void_p) + words("reserved", 9) +
                integers(" ".join(FILES), c.c_void_p) + words("spare", 5) +
                [("output", c.c_char_p)] + integers("streams options", c.c_uint32) +
                [("cache", c.c_void_p)] + integers("cache_bytes video_bytes audio_bytes") +
                [("folder", c.c_char_p), ("append", c.c_void_p)])


class UserBox(c.Structure):
    _fields_ = [("type", c.c_char * 4), ("data", c.c_char_p), ("size", c.c_uint32)]


class FileType(c.Structure):
    _fields_ = [("major", c.c_char * 4), ("minor", c.c_uint32), ("brands", c.c_char_p),
                ("count", c.c_uint32)]


class Input(c.Structure):
    _fields_ = (integers("year month day weekday hour minute second") +
                [("boxes", c.POINTER(UserBox)), ("box_count", c.c_uint32),
                 ("file_type", c.POINTER(FileType))] +
                integers("video_id width height rate") +
                [("video_code", c.c_char * 4), ("video_private", c.c_char_p)] +
                integers("video_private_bytes audio_id sample_rate bits channels audio_code") +
                [("audio_private", c.c_char_p), ("audio_private_bytes", c.c_int32),
                 ("language", c.c_char * 3)])


class Frame(c.Structure):
    _fields_ = [("data", c.c_char_p)] + integers("size type time time2 flags")


class CloseMemory(c.Structure):
    _fields_ = [("memory", c.c_void_p), ("size", c.c_int32)]


@c.CFUNCTYPE(c.c_int, c.c_void_p, c.c_int32, c.c_int)
def fseek(handle, offset, whence):
    return libc.fseeko(handle, offset, whence)


@c.CFUNCTYPE(c.c_int32, c.c_void_p, c.c_void_p, c.c_int32)
def append_file(destination, source, _):
    expected = libc.ftello(destination)
    libc.fseeko(destination, 0, 2)
    gap = libc.ftello(destination) - expected
    libc.fseeko(source, 0, 0)
    block = c.create_string_buffer(65536)
    while (got := libc.fread(block, 1, len(block), source)) > 0:
        libc.fwrite(block, 1, got, destination)
    libc.fclose(source)
    return gap


def record(library, path, audio, video, setup):
    """Writes one file; audio and video are (code, configuration, frames, ...) or None."""
    (cache_bytes, table_bytes), close_bytes, wide, append, boxes = setup
    init = Init(output=bytes(path), folder=bytes(path.parent), options=0 if wide else 1)
    for name in MEMORY + FILES:
        function = fseek if name == "fseek" else getattr(libc, REAL_NAMES.get(name, name))
        setattr(init, name, c.cast(function, c.c_void_p).value)
    init.streams = (VIDEO if video else 0) | (AUDIO if audio else 0)
    cache = c.create_string_buffer(cache_bytes + 2 * table_bytes + 4)
    init.cache = c.addressof(cache) if cache_bytes else None
    init.cache_bytes, init.video_bytes, init.audio_bytes = cache_bytes, table_bytes, table_bytes
    init.append = c.cast(append_file, c.c_void_p).value if append else None
    about = Input(year=2009, month=9, day=5, sample_rate=48000, bits=16, channels=2,
                  language=b"eng")
    if boxes:
        about.boxes = c.pointer(UserBox(b"usr1", b"\1\2\3", 3))
        about.box_count = 1
        about.file_type = c.pointer(FileType(b"mp42", 0, b"isom", 1))
    if video:
        about.video_code, config, _, (about.width, about.height) = video
        about.video_private, about.video_private_bytes = config, len(config)
    if audio:
        about.audio_code, config, _, samples = audio
        about.audio_private, about.audio_private_bytes = config, len(config)
    handle = c.c_void_p()
    run = lambda op, one, two: library.QVR_MP4_MUX(op, c.byref(handle), one, two)
    assert run(0, c.byref(init), c.byref(about)) == 0, "open"
    for i in range(FRAMES):
        if video:
            data, key = video[2][i]
            assert run(2, c.byref(Frame(data, len(data), VIDEO, i * 1000 // 30, 0, key)), None) == 0
        if audio:
            data, _ = audio[2][i]
            assert run(2, c.byref(Frame(data, len(data), AUDIO, i * samples // 48, 0, 0)),
                       None) == 0
    memory = c.create_string_buffer(close_bytes + 4)
    lent = CloseMemory(c.addressof(memory), close_bytes)
    assert run(1, c.byref(lent), None) == 0, "close"


def encode(folder, source, codec):
    """The packets that an encoder makes: (bytes, whether key frame)."""
    command = ["ffmpeg", "-nostdin", "-v", "error", "-y", *source, "-t", "1.1", "-map", "0", "-c",
               *codec, "-f", "tee", f"[f=data]{folder}/data|[f=framecrc]pipe\\:1"]
    lines = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    data, at, packets = (folder / "data").read_bytes(), 0, []
    for line in lines.splitlines():
        if not line.startswith("#"):
            size = int(line.split(",")[4])
            packets.append((data[at:at + size], "F=0x0" not in line))
            at += size
    return packets


def sample_pictures():
    """Parameter sets of the sample, its pictures, and the same with the sets in front."""
    units = re.split(b"\0{2,3}\1", (SAMPLES / "programme.h264").read_bytes())[1:]
    with_length = lambda unit: len(unit).to_bytes(4, "big") + unit
    pictures, full, sets = [], [], b""
    for unit in units[:200]:
        kind = unit[0] & 31
        if kind in (1, 5):
            pictures.append((with_length(unit), kind == 5))
            full.append((sets + with_length(unit), kind == 5))
            sets = b""
        else:
            sets += with_length(unit)
    return units[0], units[1], pictures, full


def streams(folder):
    sound = ["-i", SAMPLES / "programme.wav"]
    picture = ["-f", "lavfi", "-i", "testsrc=size=352x288:rate=30"]
    aac = encode(folder, sound, ["aac"])
    mpeg4 = encode(folder, picture, ["mpeg4", "-bf", "0"])
    h263 = encode(folder, picture, ["h263"])
    sps, pps, pictures, full = sample_pictures()
    two = lambda unit: len(unit).to_bytes(2, "big") + unit
    avcc = b"\1" + sps[1:4] + b"\xff\xe1" + two(sps) + b"\1" + two(pps)
    small, large = (320, 240), (352, 288)
    audio = [(tag, b"\x11\x90", aac, 1024) for tag in (0xAAC0, 0x00FF, 0x706D, 0x1234)]
    audio += [(0x0055, b"", encode(folder, sound, ["libmp3lame"]), 1152),
              (0x0001, b"", encode(folder, sound, ["pcm_s16be"]), 1024)]
    video = [(b"avc1", b"\0\0\0\1" + sps + b"\0\0\0\1" + pps, pictures, small),
             (b"H264", avcc, pictures, small),
             (b"avc1", b"", full, small),
             (b"mp4v", mpeg4[0][0].partition(b"\0\0\1\xb6")[0], mpeg4, large),
             (b"s263", b"", h263, large),
             (b"h263", b"", h263, large)]
    return audio, video


def complaints(path):
    judges = [["ffprobe", "-v", "warning", "-count_packets", path],
              ["ffmpeg", "-nostdin", "-v", "warning", "-xerror", "-err_detect", "explode", "-i",
               path, "-f", "null", "-"],
              ["gst-discoverer-1.0", path],
              ["mkvmerge", "-q", "-o", f"{path}.mkv", path],
              ["mediainfo", "--Full", path]]
    for command in judges:
        result = subprocess.run(command, capture_output=True, text=True)
        said = re.sub("Guessed Channel Layout .*\n", "", result.stdout + result.stderr)  # of PCM
        if command[0] in ("gst-discoverer-1.0", "mediainfo"):  # they also describe the file
            said = "\n".join(re.findall(
                ".*(?:error|warning|missing|unknown|conformance|truncated).*", said, re.I))
            said = re.sub(".*UNKNOWN - QVR_MP4_MUX.*", "", said).strip()  # the file's name
        if result.returncode != 0 or said:
            yield f"{command[0]}: {said or result.returncode}"


def meeting(choices):
    return set(itertools.combinations(enumerate(choices), 2))


def pairwise(setups):
    """Some of the set-ups, in which every two choices meet that meet in all of them."""
    missing = set().union(*map(meeting, setups))
    picked = []
    while missing:
        wanted = min(missing)
        having = [choices for choices in setups if all(choices[at] == i for at, i in wanted)]
        picked.append(max(having, key=lambda choices: len(meeting(choices) & missing)))
        missing -= meeting(picked[-1])
    return picked


def main():
    if {"-h", "--help"} & set(sys.argv):
        return print(__doc__)
    if len(sys.argv) < 2:
        return __doc__
    if not all(map(shutil.which, ("ffmpeg", "gst-discoverer-1.0", "mkvmerge", "mediainfo"))):
        return 77
    library = c.CDLL(sys.argv[1])
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        audio, video = streams(folder)
        choices = [[None] + audio, [None] + video, CACHES, CLOSE_BYTES] + [(False, True)] * 3
        setups = [at for at in itertools.product(*[range(len(of)) for of in choices])
                  if at[:2] != (0, 0)]

        def judge(at):
            sound, picture, *setup = [of[i] for of, i in zip(choices, at)]
            place = folder / "-".join(map(str, at))
            place.mkdir()
            record(library, place / "out.mp4", sound, picture, setup)
            said = [[stream[0] for stream in (sound, picture) if stream] + [setup, words]
                    for words in complaints(place / "out.mp4")]
            shutil.rmtree(place)
            return said

        picked = setups if "--all" in sys.argv else pairwise(setups)
        with multiprocessing.pool.ThreadPool() as pool:
            faults = sum(pool.map(judge, picked), [])
        for fault in faults:
            print(*fault)
        print(f"{len(picked)} set-ups judged, {len(faults)} complaints")
        return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
