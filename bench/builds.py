"""The builds that bench/performance.py measures, and the runs of their benchmark programs."""
import json
import os
import sys

from measuring import ROOT, run

RELEASE = ROOT / 'build/measured'
PORTABLE = ROOT / 'build/portable'
ARM = ROOT / 'build/arm-library'
NO_VECTORS = ['-DTDMBREC_VECTOR=OFF', '-DCMAKE_CXX_FLAGS=-fno-tree-vectorize',
              '-DTDMBREC_TESTS=OFF', '-DTDMBREC_BENCH=OFF']
BUILDS = [('release', RELEASE, ['-DTDMBREC_TESTS=OFF']),
          ('release', PORTABLE, NO_VECTORS),
          ('arm', ARM, ['-DTDMBREC_TESTS=OFF'])]


def build():
    for preset, folder, settings in BUILDS:
        run(['cmake', '--fresh', '--preset', preset, '-B', folder] + settings, cwd=ROOT)
        run(['cmake', '--build', folder, '-j', os.cpu_count()])


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
