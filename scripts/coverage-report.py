#!/usr/bin/env python3
"""The report of scripts/coverage: counts of llvm-cov against the list of exceptions.

coverage-report.py EXPORT ROOT FAILED [--uncovered]

EXPORT is what `llvm-cov export` wrote, FAILED is 1 if a program that counted has failed. A branch is one outcome of a
condition. It is known by file, function, outcome and the condition's text, so that the list outlives changes around it.
"""
import collections
import json
import os
import re
import subprocess
import sys

EXPANSION, INVARIANT = 1, 'invariant'
ASSERT_MACROS = re.compile(r'QX_ASSERT(_TEXT|_IN)?\s*\(')
# Conditions that the compiler knows: nothing branches there, nor on what is only asked beside them.
FOLDED = re.compile(r'^(false|true)$')
MISTAKE = 'IsMutant('

Branch = collections.namedtuple('Branch', 'file function outcome text')


def sources(root):
    """Text of a file, by its name within the project, by line."""
    texts = {}

    def lines(name):
        if name not in texts:
            with open(os.path.join(root, name), encoding='utf-8') as f:
                texts[name] = f.read().split('\n')
        return texts[name]
    return lines


def within_project(path):
    """qxLss/src/X.cpp of an absolute or relative path; None for what is not the LSS."""
    match = re.search(r'(?:^|/)(qx[A-Za-z]+/(?:src/)?[A-Za-z0-9]+\.(?:h|cpp))$', path)
    return match.group(1) if match and 'tests/qx' not in path else None


def piece(lines, begin_line, begin_column, end_line, end_column):
    if begin_line == end_line:
        return lines[begin_line - 1][begin_column - 1:end_column - 1]
    parts = [lines[begin_line - 1][begin_column - 1:]] + lines[begin_line:end_line - 1]
    return ' '.join(parts + [lines[end_line - 1][:end_column - 1]])


def without(text, opening, closing):
    """Text without what stands in brackets."""
    depth, kept = 0, []
    for i, c in enumerate(text):
        if c == opening:
            depth += 1
        elif c == closing and depth and text[i - 1] != '-':
            depth -= 1
        elif not depth:
            kept.append(c)
    return ''.join(kept)


def plain_name(name):
    """Class::Function of a demangled name; lambdas count as the function that they stand in."""
    name = name.replace('(anonymous namespace)::', '').replace('operator()', 'call').replace('quna::', '')
    name = without(without(name, '<', '>'), '(', ')')
    name = re.sub(r"::(\$_\d+|'lambda\d*'|{lambda.*?}).*", '', name)
    name = re.sub(r'\[abi:\w+\]', '', name).replace(' const', '').strip()
    return name.split(' ')[-1]


def demangled(names):
    mangled = [name.split(':')[-1] for name in names]
    out = subprocess.run(['c++filt'], input='\n'.join(mangled), capture_output=True, text=True, check=True).stdout
    return dict(zip(names, (plain_name(line) for line in out.split('\n'))))


def collect(export, lines):
    """Counts by branch and place: instantiations and inlined copies count together."""
    functions = export['data'][0]['functions']
    names = demangled([f['name'] for f in functions])
    counts = collections.defaultdict(int)
    for function in functions:
        if not function.get('branches'):
            continue
        for branch in function['branches']:
            file_id, place, from_macro = branch[6], tuple(branch[:4]), False
            inner = place
            # From the text of a macro to where it is used.
            while file_id != 0 and within_project(function['filenames'][file_id]) is not None:
                region = next((r for r in function['regions'] if r[7] == EXPANSION and r[6] == file_id), None)
                if region is None:
                    break
                from_macro, place, file_id = True, tuple(region[:4]), region[5]
            name = within_project(function['filenames'][file_id])
            if name is None or not name.startswith('qxLss/'):
                continue
            text = ' '.join(piece(lines(name), *place).split())
            if from_macro:
                rest = ' '.join(lines(name)[place[0] - 1:place[0] + 6])[place[1] - 1:]
                text = ' '.join(rest.split(';')[0].split())
            for outcome, count in (('true', branch[4]), ('false', branch[5])):
                key = (Branch(name.removeprefix('qxLss/').removeprefix('src/'), names[function['name']], outcome, text),
                       name, place, inner if from_macro else None)
                counts[key] += count
    return counts


def read_exceptions(path):
    """Branch -> how many places may leave it out. Lines: file | function | outcome | condition; # and [class] lines between."""
    listed, classes, current = collections.Counter(), {}, ''
    with open(path, encoding='utf-8') as f:
        for number, line in enumerate(f, 1):
            line = line.strip()
            if not line or line.startswith('#'):
                continue
            if line.startswith('['):
                current = line.split(']')[0][1:]
                continue
            parts = [p.strip() for p in line.split(' | ', 3)]
            if len(parts) != 4 or not current:
                sys.exit(f'{path}:{number}: not an exception: {line}')
            branch = Branch(*parts)
            listed[branch] += 1
            classes[branch] = current
    return listed, classes


def percent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def main():
    export_path, root, failed = sys.argv[1], sys.argv[2], sys.argv[3] == '1'
    show_all = '--uncovered' in sys.argv[4:]
    with open(export_path, encoding='utf-8') as f:
        export = json.load(f)
    lines_of = sources(root)
    counts = collect(export, lines_of)

    # Where neither outcome was ever seen the compiler may know the condition.
    places = collections.defaultdict(dict)
    for (branch, name, place, inner), count in counts.items():
        places[(branch._replace(outcome=''), name, place, inner)][branch.outcome] = count
    listed, classes = read_exceptions(os.path.join(root, 'docs/coverage-exceptions.txt'))
    left = collections.Counter(listed)
    by_file = collections.defaultdict(lambda: [0, 0])
    by_class = collections.Counter()
    unlisted, shown = [], []
    for (branch, name, place, inner), outcomes in sorted(places.items()):
        is_assertion = inner is not None and ASSERT_MACROS.match(branch.text)
        around = ' '.join(lines_of(name)[place[0] - 1:place[2]])
        if not any(outcomes.values()) and (FOLDED.match(branch.text) or MISTAKE in around):
            continue
        for outcome, count in sorted(outcomes.items()):
            by_file[name][1] += 1
            if count:
                by_file[name][0] += 1
                continue
            exact = branch._replace(outcome=outcome)
            line = f'{name}:{place[0]}: {exact.file} | {exact.function} | {exact.outcome} | {exact.text}'
            if is_assertion and outcome == 'true' and any(outcomes.values()):
                by_class[INVARIANT] += 1
            elif left[exact]:
                left[exact] -= 1
                by_class[classes[exact]] += 1
            else:
                unlisted.append(line)
                continue
            shown.append(line)

    totals = collections.Counter()
    for f in export['data'][0]['files']:
        name = within_project(f['filename'])
        if name is None or not name.startswith('qxLss/'):
            continue
        lines, regions = f['summary']['lines'], f['summary']['regions']
        covered, whole = by_file.get(name, (0, 0))
        totals.update(lines=lines['count'], lines_covered=lines['covered'], branches=whole, branches_covered=covered)
        print(f"{name:34} lines {lines['covered']:4}/{lines['count']:<4} regions {regions['covered']:4}/{regions['count']:<4}"
              f' branches {covered:4}/{whole:<4}')
    if show_all:
        print('\n'.join(shown))
    for branch, n in sorted(left.items()):
        if n:
            print('taken now, or gone: ' + ' | '.join(branch))
    print(''.join(f'not taken, and no exception: {line}\n' for line in unlisted), end='')
    print('exceptions: ' + ', '.join(f'{n} {name}' for name, n in sorted(by_class.items())))
    num_listed = sum(by_class.values())
    good = not unlisted and not failed
    print(f"coverage qxLss: lines={percent(totals['lines_covered'], totals['lines']):.2f}%"
          f" branches={percent(totals['branches_covered'], totals['branches']):.2f}%"
          f' uncovered={num_listed + len(unlisted)} listed={num_listed} verdict={"ok" if good else "FAIL"}')
    return 0 if good else 1


sys.exit(main())
