#!/usr/bin/python3
"""Searches for the sound whose most expensive frame costs the encoder most.

usage: bench/worst_frame.py [SECONDS [SEED [CORPUS]]]

The cost of a frame is the instructions of one call of the encoder, in the portable build of
bench/performance.py; ratios compare it with the average of music at 48 kHz, stereo, 128 kbit/s.
First come the inputs of the fuzzer in the folder CORPUS (fuzz/corpus/fuzz_aacenc). Then it climbs,
from the sounds of bench/hostile_sound.py and from random ones: it changes a few numbers of a sound
at a time and keeps what costs more. Each climb takes SECONDS (60); two have the settings that the
recorder can have, two have any. WORST in bench/hostile_sound.py keeps what they find. Needs the
packages of `scripts/install_dependencies.sh tests`.
"""
import pathlib
import random
import tempfile
import time

from builds import PORTABLE, build
from counting import Stream, frame_costs, stream_frame_costs
from hostile_sound import (FRAME_SAMPLES, HOSTILE, KINDS, RECORDER, SAMPLES, SIDES, WORST, Layer,
                           Settings, render)
from measuring import ROOT, read_arguments, read_pcm
from quality import make_music

CORPUS = ROOT / 'fuzz/corpus/fuzz_aacenc'
SAMPLE_RATES = (48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000)
BIT_RATES = (16000, 24000, 32000, 48000, 64000, 96000, 128000, 160000, 192000, 256000, 288000)
MOST_LAYERS = 5
POOL = 16
BATCH = 48


def any_settings(chance, recorder_only):
    """The recorder can be set to any sample rate, and to nothing else."""
    if recorder_only:
        return RECORDER._replace(sample_rate=chance.choice(SAMPLE_RATES))
    return Settings(chance.choice(SAMPLE_RATES), chance.choice((1, 2, 2, 2)),
                    chance.choice(BIT_RATES), chance.randint(0, 1), chance.randint(0, 1))


def any_layer(chance):
    start = chance.choice([0, FRAME_SAMPLES * chance.randrange(8), chance.randrange(SAMPLES)])
    end = chance.choice([SAMPLES, start + FRAME_SAMPLES, start + chance.randint(1, 3000)])
    period = chance.choice([1, 2, 3, chance.randint(1, 40), chance.randint(1, 2000)])
    return Layer(chance.choice(list(KINDS)), start, end, int(2 ** chance.uniform(0, 15)), period,
                 chance.randrange(100000), chance.choice(SIDES))


def nudged(chance, layer, field):
    """A value near that of a field which is a number."""
    value = getattr(layer, field)
    if field == 'level':
        return min(32767, max(1, int(value * 2 ** chance.gauss(0, 0.5))))
    reach = 3 if field == 'period' else 300
    return max(1, value + chance.randint(-reach, reach))


def changed_layer(chance, layer):
    field = chance.choice(Layer._fields)
    if field in ('start', 'end', 'level', 'period') and chance.random() < 0.5:
        return layer._replace(**{field: nudged(chance, layer, field)})
    return layer._replace(**{field: getattr(any_layer(chance), field)})


def change(chance, sound, recorder_only):
    settings, layers = sound
    layers = list(layers)
    for _ in range(chance.choice((1, 1, 2, 3))):
        turn = chance.randrange(10)
        at = chance.randrange(len(layers))
        if turn == 0:
            field = chance.choice(Settings._fields)
            new = getattr(any_settings(chance, recorder_only), field)
            settings = settings._replace(**{field: new})
        elif turn == 1 and len(layers) < MOST_LAYERS:
            layers.append(any_layer(chance))
        elif turn == 2 and len(layers) > 1:
            layers.pop(at)
        else:
            layers[at] = changed_layer(chance, layers[at])
    return settings, layers


def judge(sounds, folder):
    """returns: the cost of each sound's worst frame and the sound"""
    costs = stream_frame_costs(PORTABLE, [render(*sound) for sound in sounds], folder)
    return [(max(frames), sound) for frames, sound in zip(costs, sounds)]


def hostile_sounds(recorder_only):
    settings = [RECORDER._replace(sample_rate=rate) for rate in SAMPLE_RATES]
    if not recorder_only:
        settings += [worst for worst, _ in WORST.values()]
        settings += [Settings(rate, channels, bit_rate, tools, tools)
                     for rate in (48000, 32000, 8000) for channels in (1, 2)
                     for bit_rate in (16000, 128000, 288000) for tools in (0, 1)]
    sounds = HOSTILE + [layers for _, layers in WORST.values()]
    return [(choice, layers) for choice in settings for layers in sounds]


def random_sound(chance, recorder_only):
    layers = [any_layer(chance) for _ in range(chance.randint(1, 3))]
    return any_settings(chance, recorder_only), layers


def climb(chance, recorder_only, sounds, seconds, folder):
    """returns: the most expensive frame and its sound"""
    pool = []
    end = time.monotonic() + seconds
    while not pool or time.monotonic() < end:
        pool = sorted(pool + judge(sounds, folder), reverse=True, key=lambda item: item[0])[:POOL]
        sounds = [random_sound(chance, recorder_only) if chance.random() < 0.15 else
                  change(chance, chance.choice(pool)[1], recorder_only) for _ in range(BATCH)]
    return pool[0]


def judge_corpus(corpus, mean, folder):
    inputs = sorted(corpus.iterdir())
    costs = frame_costs([PORTABLE / 'bin/fuzz_aacenc', *inputs], folder)
    print(f'{max(costs) / mean:.2f} in {len(inputs)} inputs of the fuzzer', flush=True)


def main():
    arguments = read_arguments(__doc__)
    seconds = float(arguments[0]) if arguments else 60
    seed = int(arguments[1]) if len(arguments) > 1 else 1
    corpus = pathlib.Path(arguments[2]) if len(arguments) > 2 else CORPUS
    build(PORTABLE)
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        make_music(folder / 'music.wav')
        music, = stream_frame_costs(PORTABLE, [Stream(read_pcm(folder / 'music.wav'))], folder)
        mean = sum(music) / len(music)
        print(f'music: {mean:.0f} on average, {max(music)} at most', flush=True)
        judge_corpus(corpus, mean, folder)
        for recorder_only in (True, False):
            chance = random.Random(seed)
            for sounds in (hostile_sounds(recorder_only),
                           [random_sound(chance, recorder_only) for _ in range(BATCH)]):
                cost, (settings, layers) = climb(chance, recorder_only, sounds, seconds, folder)
                print(f'{cost / mean:.2f} {settings}', *layers, sep='\n    ', flush=True)


if __name__ == '__main__':
    main()
