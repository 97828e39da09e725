"""Sounds that make the encoder work, as sums of layers; among them the worst that
bench/worst_frame.py has found.
"""
import collections

from counting import Stream
from measuring import FRAME_SAMPLES, numpy

SAMPLES = 8 * FRAME_SAMPLES

# Settings of a stream as in counting.Stream, with the number of channels after the rate.
Settings = collections.namedtuple('Settings', 'sample_rate channels bit_rate pns tns')
RECORDER = Settings(48000, 2, 128000, 0, 0)

# A sound from one sample to another, both counted from the start. `side` says what the second
# channel has of it.
Layer = collections.namedtuple('Layer', 'kind start end level period seed side')
SIDES = ('same', 'inverted', 'other', 'silent')

# The sample numbers, a layer and random numbers: the samples.
KINDS = {
    'constant': lambda n, layer, random: numpy.full(len(n), layer.level),
    'square': lambda n, layer, random: numpy.where(n // layer.period % 2, layer.level,
                                                   -layer.level),
    'impulses': lambda n, layer, random: numpy.where(n % layer.period == 0, layer.level, 0),
    'noise': lambda n, layer, random: random.randint(-layer.level, layer.level + 1, len(n)),
    'signs': lambda n, layer, random: layer.level * (2 * random.randint(0, 2, len(n)) - 1),
    'tone': lambda n, layer, random: numpy.rint(
        layer.level * numpy.sin(2 * numpy.pi * n / layer.period)),
}


def render_channels(layer):
    n = numpy.arange(SAMPLES)
    # This generator gives the same numbers in every version.
    first, other = (KINDS[layer.kind](n, layer, numpy.random.RandomState(seed))
                    for seed in (layer.seed, layer.seed + 1))
    second = {'same': first, 'inverted': -first, 'other': other, 'silent': 0 * first}[layer.side]
    inside = (n >= layer.start) & (n < layer.end)
    return numpy.stack([first, second], axis=1) * inside[:, None]


def render(settings, layers):
    """returns: a stream of eight frames"""
    pcm = sum(render_channels(layer) for layer in layers).clip(-32768, 32767).astype(numpy.int16)
    return Stream(pcm[:, :settings.channels], settings.sample_rate, settings.bit_rate,
                  settings.pns, settings.tns)


def after_silence(kind, level, period=1):
    return [Layer(kind, 4 * FRAME_SAMPLES, SAMPLES, level, period, 1, 'other')]


def bursts():
    """Loud and quiet by turns of half a frame."""
    half = FRAME_SAMPLES // 2
    return [Layer('signs', start, start + half, 32767 if start // half % 2 else 7, 1, start, 'other')
            for start in range(0, SAMPLES, half)]


# What a search starts from.
HOSTILE = [
    after_silence('noise', 32767),
    after_silence('signs', 32767),
    after_silence('square', 32767, 1),
    after_silence('square', 32767, 61),
    [Layer('square', 0, SAMPLES, 32767, 61, 1, 'inverted')],
    [Layer('impulses', 0, SAMPLES, 32767, 1500, 1, 'same')],
    [Layer('signs', 0, SAMPLES, 2, 1, 1, 'other'), *after_silence('signs', 32767)],
    [Layer('constant', 0, SAMPLES, 30000, 1, 1, 'silent'),
     Layer('noise', 0, SAMPLES, 8, 1, 1, 'other')],
    bursts(),
]

# The worst that a search has found.
WORST = {
    'recorder\'s settings': (Settings(22050, 2, 128000, 0, 0), [
        Layer('noise', 0, 6824, 38, 1, 55763, 'same'),
        Layer('square', 2048, SAMPLES, 462, 4, 0, 'inverted'),
        Layer('tone', 3072, 6305, 539, 925, 0, 'other'),
        Layer('impulses', 5120, SAMPLES, 30557, 1, 0, 'other')]),
    'any settings': (Settings(32000, 2, 288000, 1, 1), [
        Layer('impulses', 2062, 4970, 235, 669, 0, 'other'),
        Layer('signs', 0, 7785, 2, 1, 35402, 'same'),
        Layer('constant', 797, SAMPLES, 29707, 1, 0, 'other'),
        Layer('impulses', 4096, 4770, 22, 1, 0, 'same')]),
}
