"""Counts of instructions by function, which are the same in every run."""
import os
import re

from measuring import SAMPLE_SECONDS, run


def callgrind(command, folder, *options):
    """Instructions by function and object: {(function, object): count}."""
    out = folder / 'callgrind.out'
    run(['valgrind', '--tool=callgrind', f'--callgrind-out-file={out}', *options] + command)
    listing = run(['callgrind_annotate', '--threshold=100', '--show=Ir', out])
    costs = {}
    for count, name in re.findall(r'^ *([\d,]+) \([ \d.]+%\)  (\S.*)$', listing, re.M):
        library = re.search(r'\[(.*)\]$', name)
        function = re.sub(r'^[^:]*:(void )?|(\(.*)? \[.*$', '', name)
        key = function, os.path.basename(library.group(1)) if library else ''
        if name != 'PROGRAM TOTALS':
            costs[key] = costs.get(key, 0) + int(count.replace(',', ''))
    return costs


def per_second(command_for, seconds, folder, *options):
    """Instructions per second of programme: a long run less a short one."""
    short = SAMPLE_SECONDS
    few = callgrind(command_for(short), folder, *options)
    many = callgrind(command_for(seconds), folder, *options)
    return {key: (count - few.get(key, 0)) / (seconds - short) for key, count in many.items()}


def by(costs, index):
    sums = {}
    for key, cost in costs.items():
        sums[key[index]] = sums.get(key[index], 0) + cost
    return sums
