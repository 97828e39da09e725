"""The builds that bench/performance.py measures, and the runs of their benchmark programs."""
import json
import os
import sys

from measuring import ROOT, run

RELEASE = ROOT / 'build/measured'
PORTABLE = ROOT / 'build/portable'
ARM = ROOT / 'build/arm-library'
PLAIN_ARM = ROOT / 'build/arm-plain'
NO_VECTORS = ['-DTDMBREC_VECTOR=OFF', '-DCMAKE_CXX_FLAGS=-fno-tree-vectorize']
ONLY_LIBRARY = ['-DTDMBREC_TESTS=OFF', '-DTDMBREC_BENCH=OFF', '-DTDMBREC_COUNT=ON']
BUILDS = {
    RELEASE: ('release', ['-DTDMBREC_TESTS=OFF'], ['all']),
    PORTABLE: ('release', NO_VECTORS + ['-DTDMBREC_BENCH=OFF', '-DTDMBREC_COUNT=ON'],
               ['tdmbrec', 'encode_frames', 'fuzz_aacenc']),
    ARM: ('arm', ONLY_LIBRARY, ['all', 'encode_frames']),
    # The processor's option leaves the compiler no vectors.
    PLAIN_ARM: ('arm', ONLY_LIBRARY + ['-DTDMBREC_VECTOR=OFF',
                                       '-DCMAKE_CXX_FLAGS=-march=armv7-a+fp'], ['encode_frames']),
}


def build(*folders):
    """Builds in the folders, or in all of them."""
    for folder in folders or BUILDS:
        preset, settings, targets = BUILDS[folder]
        run(['cmake', '--fresh', '--preset', preset, '-B', folder] + settings, cwd=ROOT)
        run(['cmake', '--build', folder, '-j', os.cpu_count(), '--target', *targets])


def benchmark(program, extent, names='.'):
    arguments = [RELEASE / 'bin' / program, '--benchmark_format=json',
                 f'--benchmark_filter={names}', *extent.benchmark_options]
    result = run(arguments, env={**os.environ, **extent.environment})
    results = json.loads(result[result.index('{'):])['benchmarks']
    for entry in results:
        if entry.get('error_occurred'):
            sys.exit(f'{program}: {entry["name"]}: {entry["error_message"]}')
    return results


def named(results, prefix):
    return [entry for entry in results if entry['name'].startswith(prefix)]
