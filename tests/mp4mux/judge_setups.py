#!/usr/bin/python3
"""Judges the muxer's files by programs that read them.

usage: tests/mp4mux/judge_setups.py LIBRARY [--all]

LIBRARY is libOMX.QVR.tdmbrec.so. Records the set-ups whose files a player can play (codes and
configurations, one track or two, caches, close memory, offsets, append mode, the caller's boxes)
and has ffprobe, ffmpeg, GStreamer, mkvmerge and MediaInfo read them. --all records every set-up;
otherwise every two choices occur together at least once. Prints their complaints and fails when
there are any. The result is 77 when a program is missing.
"""
import ctypes
import itertools
import multiprocessing.pool
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
from ctypes import (CFUNCTYPE, POINTER, Structure, c_char, c_char_p, c_int, c_int32, c_int64,
                    c_size_t, c_uint32, c_void_p)

SAMPLES = pathlib.Path(__file__).resolve().parents[2] / 'samples'
SKIPPED = 77
PROGRAMS = ['ffmpeg', 'gst-discoverer-1.0', 'mkvmerge', 'mediainfo']
FRAMES = 30
OPEN, CLOSE, PUT_FRAME = 0, 1, 2  # operations
VIDEO, AUDIO = 1, 2
OPTION_32BIT_OFFSET = 1
# Bytes for the output and for each track's tables: the muxer's own memory, lent memory that it
# shares out, and lent memory that is shared out already, too little and enough for the tables.
CACHES = [(0, 0), (60000, 0), (100, 100), (0xC0000, 0xC0000)]
# Bytes lent for the close: none, a cache of that size, the whole movie box.
CLOSE_BYTES = [0, 0xC0000, 3000000]
# The members of mp4_mux_init_t for memory and files.
MEMORY = ['malloc', 'free', 'memcmp', 'memcpy', 'memmove', 'memset', 'realloc']
FILES = ['fopen', 'fread', 'fseek', 'ftell', 'fclose', 'feof', 'fflush', 'fwrite', 'remove',
         'fseek64', 'ftell64']
REAL_NAMES = {'ftell': 'ftello', 'fseek64': 'fseeko', 'ftell64': 'ftello'}

libc = ctypes.CDLL(None)
libc.ftello.restype = c_int64
libc.fseeko.argtypes = [c_void_p, c_int64, c_int]
for name in ('ftello', 'fclose'):
    getattr(libc, name).argtypes = [c_void_p]
for name in ('fread', 'fwrite'):
    getattr(libc, name).argtypes = [c_void_p, c_size_t, c_size_t, c_void_p]


def pointers(prefix, count):
    return [(f'{prefix}{i}', c_void_p) for i in range(count)]


def members(names, kind=c_int32):
    return [(name, kind) for name in names.split()]


class Init(Structure):
    _fields_ = (members(' '.join(MEMORY), c_void_p) + pointers('reserved', 9) +
                members(' '.join(FILES), c_void_p) + pointers('spare', 5) +
                [('output', c_char_p)] + members('streams options', c_uint32) +
                [('cache', c_void_p)] + members('cache_bytes video_bytes audio_bytes') +
                [('folder', c_char_p), ('append', c_void_p)])


class UserBox(Structure):
    _fields_ = [('type', c_char * 4), ('data', c_char_p), ('size', c_uint32)]


class FileType(Structure):
    _fields_ = [('major', c_char * 4), ('minor', c_uint32), ('brands', c_char_p),
                ('count', c_uint32)]


class Input(Structure):
    _fields_ = (members('year month day weekday hour minute second') +
                [('boxes', POINTER(UserBox)), ('box_count', c_uint32),
                 ('file_type', POINTER(FileType))] +
                members('video_id width height rate') +
                [('video_code', c_char * 4), ('video_private', c_char_p)] +
                members('video_private_bytes audio_id sample_rate bits channels audio_code') +
                [('audio_private', c_char_p), ('audio_private_bytes', c_int32),
                 ('language', c_char * 3)])


class Frame(Structure):
    _fields_ = [('data', c_char_p)] + members('size type time time2 flags')


class CloseMemory(Structure):
    _fields_ = [('memory', c_void_p), ('size', c_int32)]


@CFUNCTYPE(c_int, c_void_p, c_int32, c_int)
def fseek(handle, offset, whence):
    return libc.fseeko(handle, offset, whence)


@CFUNCTYPE(c_int32, c_void_p, c_void_p, c_int32)
def append_file(destination, source, _):
    expected = libc.ftello(destination)
    libc.fseeko(destination, 0, 2)
    gap = libc.ftello(destination) - expected
    libc.fseeko(source, 0, 0)
    block = ctypes.create_string_buffer(65536)
    while (got := libc.fread(block, 1, len(block), source)) > 0:
        libc.fwrite(block, 1, got, destination)
    libc.fclose(source)
    return gap


def describe_output(path, audio, video, setup):
    """The record for the open, and the memory that it lends."""
    (cache_bytes, table_bytes), _, wide, append, _ = setup
    init = Init(output=bytes(path), folder=bytes(path.parent),
                options=0 if wide else OPTION_32BIT_OFFSET)
    for name in MEMORY + FILES:
        function = fseek if name == 'fseek' else getattr(libc, REAL_NAMES.get(name, name))
        setattr(init, name, ctypes.cast(function, c_void_p).value)
    init.streams = (VIDEO if video else 0) | (AUDIO if audio else 0)
    cache = ctypes.create_string_buffer(cache_bytes + 2 * table_bytes + 4)
    init.cache = ctypes.addressof(cache) if cache_bytes else None
    init.cache_bytes, init.video_bytes, init.audio_bytes = cache_bytes, table_bytes, table_bytes
    init.append = ctypes.cast(append_file, c_void_p).value if append else None
    return init, cache


def describe_streams(audio, video, boxes):
    about = Input(year=2009, month=9, day=5, sample_rate=48000, bits=16, channels=2,
                  language=b'eng')
    if boxes:
        about.boxes = ctypes.pointer(UserBox(b'usr1', b'\1\2\3', 3))
        about.box_count = 1
        about.file_type = ctypes.pointer(FileType(b'mp42', 0, b'isom', 1))
    if video:
        about.video_code, config, _, (about.width, about.height) = video
        about.video_private, about.video_private_bytes = config, len(config)
    if audio:
        about.audio_code, config, _, _ = audio
        about.audio_private, about.audio_private_bytes = config, len(config)
    return about


def record(library, path, audio, video, setup):
    """Writes one file; audio and video are (code, configuration, frames, ...) or None."""
    _, close_bytes, _, _, boxes = setup
    init, _cache = describe_output(path, audio, video, setup)
    about = describe_streams(audio, video, boxes)
    handle = c_void_p()

    def run(operation, one, two=None):
        assert library.QVR_MP4_MUX(operation, ctypes.byref(handle), one, two) == 0, operation

    run(OPEN, ctypes.byref(init), ctypes.byref(about))
    for i in range(FRAMES):
        if video:
            data, key = video[2][i]
            run(PUT_FRAME, ctypes.byref(Frame(data, len(data), VIDEO, i * 1000 // 30, 0, key)))
        if audio:
            data, _ = audio[2][i]
            time_ms = i * audio[3] // 48
            run(PUT_FRAME, ctypes.byref(Frame(data, len(data), AUDIO, time_ms, 0, 0)))
    memory = ctypes.create_string_buffer(close_bytes + 4)
    run(CLOSE, ctypes.byref(CloseMemory(ctypes.addressof(memory), close_bytes)))


def encode(folder, source, codec):
    """The packets that an encoder makes: (bytes, whether key frame)."""
    command = ['ffmpeg', '-nostdin', '-v', 'error', '-y', *source, '-t', '1.1', '-map', '0', '-c',
               *codec, '-f', 'tee', f'[f=data]{folder}/data|[f=framecrc]pipe\\:1']
    lines = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    data, at, packets = (folder / 'data').read_bytes(), 0, []
    for line in lines.splitlines():
        if not line.startswith('#'):
            size = int(line.split(',')[4])
            packets.append((data[at:at + size], 'F=0x0' not in line))
            at += size
    return packets


def with_length(unit, width):
    return len(unit).to_bytes(width, 'big') + unit


def sample_pictures():
    """Parameter sets of the sample, its pictures, and the same with the sets in front."""
    units = re.split(b'\0{2,3}\1', (SAMPLES / 'programme.h264').read_bytes())[1:]
    pictures, full, sets = [], [], b''
    for unit in units[:200]:
        kind = unit[0] & 31
        if kind in (1, 5):
            pictures.append((with_length(unit, 4), kind == 5))
            full.append((sets + with_length(unit, 4), kind == 5))
            sets = b''
        else:
            sets += with_length(unit, 4)
    return units[0], units[1], pictures, full


def streams(folder):
    audio_input = ['-i', SAMPLES / 'programme.wav']
    video_input = ['-f', 'lavfi', '-i', 'testsrc=size=352x288:rate=30']
    aac = encode(folder, audio_input, ['aac'])
    mpeg4 = encode(folder, video_input, ['mpeg4', '-bf', '0'])
    h263 = encode(folder, video_input, ['h263'])
    sps, pps, pictures, full = sample_pictures()
    avcc = b'\1' + sps[1:4] + b'\xff\xe1' + with_length(sps, 2) + b'\1' + with_length(pps, 2)
    small, large = (320, 240), (352, 288)
    audio = [(tag, b'\x11\x90', aac, 1024) for tag in (0xAAC0, 0x00FF, 0x706D, 0x1234)]
    audio += [(0x0055, b'', encode(folder, audio_input, ['libmp3lame']), 1152),
              (0x0001, b'', encode(folder, audio_input, ['pcm_s16be']), 1024)]
    video = [(b'avc1', b'\0\0\0\1' + sps + b'\0\0\0\1' + pps, pictures, small),
             (b'H264', avcc, pictures, small),
             (b'avc1', b'', full, small),
             (b'mp4v', mpeg4[0][0].partition(b'\0\0\1\xb6')[0], mpeg4, large),
             (b's263', b'', h263, large),
             (b'h263', b'', h263, large)]
    return audio, video


def complaints(path):
    judges = [['ffprobe', '-v', 'warning', '-count_packets', path],
              ['ffmpeg', '-nostdin', '-v', 'warning', '-xerror', '-err_detect', 'explode', '-i',
               path, '-f', 'null', '-'],
              ['gst-discoverer-1.0', path],
              ['mkvmerge', '-q', '-o', f'{path}.mkv', path],
              ['mediainfo', '--Full', path]]
    for command in judges:
        result = subprocess.run(command, capture_output=True, text=True)
        said = re.sub('Guessed Channel Layout .*\n', '', result.stdout + result.stderr)  # of PCM
        if command[0] in ('gst-discoverer-1.0', 'mediainfo'):  # they also describe the file
            said = '\n'.join(re.findall(
                '.*(?:error|warning|missing|unknown|conformance|truncated).*', said, re.I))
            said = re.sub('.*UNKNOWN - QVR_MP4_MUX.*', '', said).strip()  # the file's name
        if result.returncode != 0 or said:
            yield f'{command[0]}: {said or result.returncode}'


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


def judge(library, place, audio, video, setup):
    """Records one file in a folder of its own. returns: the complaints with what was recorded"""
    place.mkdir()
    record(library, place / 'out.mp4', audio, video, setup)
    said = [[stream[0] for stream in (audio, video) if stream] + [setup, complaint]
            for complaint in complaints(place / 'out.mp4')]
    shutil.rmtree(place)
    return said


def judge_all(library, folder, whole):
    """returns: the number of set-ups and the complaints about their files"""
    audio, video = streams(folder)
    choices = [[None] + audio, [None] + video, CACHES, CLOSE_BYTES] + [(False, True)] * 3
    setups = [at for at in itertools.product(*[range(len(of)) for of in choices])
              if at[:2] != (0, 0)]
    picked = setups if whole else pairwise(setups)

    def judge_at(at):
        audio, video, *setup = [of[i] for of, i in zip(choices, at)]
        return judge(library, folder / '-'.join(map(str, at)), audio, video, setup)

    with multiprocessing.pool.ThreadPool() as pool:
        return len(picked), sum(pool.map(judge_at, picked), [])


def main():
    arguments = sys.argv[1:]
    if {'-h', '--help'} & set(arguments):
        print(__doc__)
        return 0
    if not arguments:
        return __doc__
    if not all(map(shutil.which, PROGRAMS)):
        return SKIPPED
    library = ctypes.CDLL(arguments[0])
    with tempfile.TemporaryDirectory() as name:
        count, faults = judge_all(library, pathlib.Path(name), '--all' in arguments)
    for fault in faults:
        print(*fault)
    print(f'{count} set-ups judged, {len(faults)} complaints')
    return 1 if faults else 0


if __name__ == '__main__':
    sys.exit(main())
