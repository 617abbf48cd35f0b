"""Runs the benchmarks and makes one table of them: ours, the best peer, the floor and the ratios.

A benchmark is named "<row>: <case>/<contestant>". The contestant "kvutil" is ours, "floor" is the
least work that gives the same result, every other one is a peer. A figure is the median over the
repetitions, which Google Benchmark runs in random order, so that a machine's changes of pace meet
every contestant alike. They are those of several rounds of all programs, because where the system
happens to put a process's code and memory favours one contestant or another for its whole life.
"""

import argparse
import json
import re
import statistics
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path

BENCH = Path(__file__).resolve().parent
ROOT = BENCH.parent
OURS = "kvutil"
FLOOR = "floor"
# What Google Benchmark adds to a name.
ADDED = re.compile(r"/(?:(?:iterations|repeats|threads|min_time|min_warmup_time):[^/]*|"
                   r"real_time|process_time|manual_time)(?=/|$)")
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# Fields of a result that are no counters of the benchmark's own.
STANDARD_FIELDS = {"cpu_time", "real_time", "iterations", "threads", "repetitions",
                   "repetition_index", "family_index", "per_family_instance_index",
                   "bytes_per_second", "items_per_second"}
PACKAGES = ["g++", "libicu-dev", "qtbase5-dev", "libglib2.0-dev", "libapr1-dev", "libaprutil1-dev",
            "libabsl-dev", "libboost-dev", "libfmt-dev", "libpoco-dev", "libspdlog-dev",
            "libxml2-dev", "uuid-dev", "gperf", "systemtap-sdt-dev", "libbenchmark-dev"]


class Failure(Exception):
    """What ends the program with a message."""


@dataclass
class Case:
    """One line of the table: the times of its contestants in nanoseconds, a value a repetition."""

    row: str
    name: str
    times: dict[str, list[float]] = field(default_factory=dict)
    notes: dict[str, float] = field(default_factory=dict)

    def median(self, contestant):
        return statistics.median(self.times[contestant]) if contestant in self.times else None

    def peers(self):
        return {who: self.median(who) for who in self.times if who not in (OURS, FLOOR)}

    def best_peer(self):
        peers = self.peers()
        return min(peers, key=peers.get) if peers else None

    def ratio_to(self, contestant):
        if contestant not in self.times:
            return None
        return self.median(OURS) / self.median(contestant)

    def ratio_to_peer(self):
        return self.ratio_to(self.best_peer())


# ---- The benchmarks ----

def read_sections(path):
    """The sections of rows.txt and the rows in each, in order."""
    sections = {}
    for line in path.read_text().splitlines():
        if line.startswith("["):
            section = sections.setdefault(line.strip("[]"), [])
        elif line and not line.startswith("#"):
            section.append(line)
    return sections


def run_program(program, options):
    """The results of one process, an entry a contestant and repetition."""
    command = [program, "--benchmark_format=json", "--benchmark_enable_random_interleaving=true",
               f"--benchmark_repetitions={options.repetitions}",
               f"--benchmark_min_time={options.min_time}"]
    output = subprocess.run(command, stdout=subprocess.PIPE, check=True).stdout
    return [entry for entry in json.loads(output)["benchmarks"] if entry["run_type"] == "iteration"]


def list_names(program):
    return subprocess.run([program, "--benchmark_list_tests"], stdout=subprocess.PIPE, check=True,
                          text=True).stdout.splitlines()


def parse_name(text, known_rows):
    row, colon, rest = ADDED.sub("", text).partition(": ")
    case, slash, contestant = rest.rpartition("/")
    if not colon or not slash or row not in known_rows:
        raise Failure(f'"{text}" is not "<row>: <case>/<contestant>" with a row of rows.txt')
    return row, case, contestant


def nanoseconds(entry):
    is_wall_clock = re.search(r"/(real|manual)_time", entry["name"])
    return entry["real_time" if is_wall_clock else "cpu_time"] * NANOSECONDS[entry["time_unit"]]


def counters(entry):
    return {name: value for name, value in entry.items()
            if isinstance(value, (int, float)) and not isinstance(value, bool)
            and name not in STANDARD_FIELDS}


def expected_cases(programs, known_rows):
    """The cases that are going to be timed, in the order of rows.txt and of the programs' sources."""
    cases = {}
    for program in programs:
        for text in list_names(program):
            row, name, contestant = parse_name(text, known_rows)
            cases.setdefault((row, name), Case(row, name)).times[contestant] = []
    for case in cases.values():
        if OURS not in case.times:
            raise Failure(f'"{case.row}: {case.name}" is without "{OURS}"')
    return dict(sorted(cases.items(), key=lambda item: known_rows.index(item[1].row)))


def results_of_rounds(programs, options):
    """The results of every program in every round."""
    for number in range(1, options.rounds + 1):
        for program in programs:
            print(f"bench: {program.name}, round {number} of {options.rounds}", file=sys.stderr)
            yield from run_program(program, options)


def collect(programs, known_rows, options):
    """The cases with their times."""
    cases = expected_cases(programs, known_rows)
    for entry in results_of_rounds(programs, options):
        if entry.get("error_occurred"):
            raise Failure(f'{entry["name"]}: {entry["error_message"]}')
        row, name, contestant = parse_name(entry["name"], known_rows)
        case = cases[row, name]
        case.times[contestant].append(nanoseconds(entry))
        if contestant == OURS:
            case.notes.update(counters(entry))
    return list(cases.values())


# ---- The machine ----

def first_match(pattern, path):
    match = re.search(pattern, Path(path).read_text(), re.MULTILINE)
    return match.group(1) if match else "unknown"


def printed(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except FileNotFoundError:
        return ""


def describe_machine():
    versions = printed("dpkg-query", "--show", "--showformat=${Package} ${Version}\n", *PACKAGES)
    return {
        "processor": first_match(r"^model name\s*: (.*)$", "/proc/cpuinfo"),
        "cores": int(printed("nproc")),
        "system": first_match(r'^PRETTY_NAME="(.*)"$', "/etc/os-release"),
        "kernel": printed("uname", "-r").partition("-")[0],
        "compiler": printed("g++", "--version").partition("\n")[0],
        "packages": dict(line.split() for line in versions.splitlines() if " " in line),
        "commit": printed("git", "-C", str(ROOT), "describe", "--always", "--dirty"),
        "load": float(Path("/proc/loadavg").read_text().split()[0]),
    }


def missing_peers(build):
    path = build / "bench" / "missing-peers.txt"
    return path.read_text().splitlines() if path.exists() else []


# ---- The table ----

def figure(value):
    if value is None:
        return "-"
    return f"{value:,.0f}" if value >= 100 else f"{value:.3g}"


def ratio(value):
    return "-" if value is None else f"{value:.2f}"


def case_line(case):
    peer = case.best_peer()
    notes = "".join(f"  {name}: {figure(value)}" for name, value in case.notes.items())
    return (f"  {case.name:<44} {figure(case.median(OURS)):>13} {figure(case.median(peer)):>13} "
            f"{figure(case.median(FLOOR)):>13} {ratio(case.ratio_to_peer()):>10} "
            f"{ratio(case.ratio_to(FLOOR)):>11}  {peer or '-'}{notes}")


HEADING = (f"{'operation, times in ns':<46} {'ours':>13} {'best peer':>13} {'floor':>13} "
           f"{'ours/peer':>10} {'ours/floor':>11}  best peer is")


def is_behind(case):
    peer_ratio = case.ratio_to_peer()
    return peer_ratio is not None and round(peer_ratio, 2) > 1


def table_lines(cases, sections):
    lines = [HEADING]
    for section, rows in sections.items():
        if not any(case.row in rows for case in cases):
            continue
        lines += ["", f"{section.upper()}"]
        for row in rows:
            in_row = [case for case in cases if case.row == row]
            if in_row:
                lines += [row, *map(case_line, in_row)]
    return lines


def summary_lines(cases, main_rows):
    present = [row for row in main_rows if any(case.row == row for case in cases)]
    of_main = [case for case in cases if case.row in main_rows]
    behind = [case for case in of_main if is_behind(case)]
    rows_behind = {case.row for case in behind}
    lines = [f"{len(present) - len(rows_behind)} of {len(present)} main rows are ahead of the best "
             f"peer, or level, in every case."]
    lines += [f"behind: {case.row}: {case.name} ({ratio(case.ratio_to_peer())})" for case in behind]
    return lines


def machine_lines(machine, options):
    packages = ", ".join(f"{name} {version}" for name, version in machine["packages"].items())
    return [f"command: {options.command}",
            f"machine: {machine['processor']}, {machine['cores']} cores, {machine['system']}, "
            f"kernel {machine['kernel']}, load at the start {machine['load']}",
            f"compiler: {machine['compiler']}, -O3", f"packages: {packages}",
            f"commit: {machine['commit']}",
            f"each figure: the median of {options.rounds * options.repetitions} repetitions in random order, "
            f"in {options.rounds} processes"]


def as_json(cases, machine, missing, options):
    def entry(case):
        peer = case.best_peer()
        return {"row": case.row, "case": case.name, "ours": case.median(OURS), "best_peer": peer,
                "best_peer_time": case.median(peer), "floor": case.median(FLOOR),
                "ours_to_peer": case.ratio_to_peer(), "ours_to_floor": case.ratio_to(FLOOR),
                "peers": case.peers(), "notes": case.notes}
    return {"machine": machine, "command": options.command, "unit": "ns",
            "rounds": options.rounds, "repetitions": options.repetitions, "missing_peers": missing,
            "cases": [entry(case) for case in cases]}


# ---- Comparison with an earlier table ----

def comparison_lines(old, new):
    """What changed: times only mean something on the same machine, ratios on any."""
    before = {(entry["row"], entry["case"]): entry for entry in old["cases"]}
    now = {(entry["row"], entry["case"]): entry for entry in new["cases"]}
    lines = [f"{'operation':<72} {'ours, before':>13} {'now':>13} {'now/before':>11} "
             f"{'ours/peer, before':>18} {'now':>6}"]
    for key, entry in now.items():
        name = f"{key[0]}: {key[1]}"
        if key not in before:
            lines.append(f"{name:<72} {'new':>13} {figure(entry['ours']):>13}")
            continue
        was = before[key]
        lines.append(f"{name:<72} {figure(was['ours']):>13} {figure(entry['ours']):>13} "
                     f"{ratio(entry['ours'] / was['ours']):>11} {ratio(was['ours_to_peer']):>18} "
                     f"{ratio(entry['ours_to_peer']):>6}")
    lines += [f"{row}: {case}: no longer there" for row, case in before.keys() - now.keys()]
    return lines


# ---- The document ----

TABLE_IN_DOCUMENT = re.compile(r"(<!-- table -->\n).*(<!-- end of table -->)", re.DOTALL)


def unexplained(cases, document, main_rows):
    """The main cases that are not ahead and of which the document does not say why."""
    return [f"{case.row}: {case.name}" for case in cases
            if case.row in main_rows and is_behind(case)
            and f"**{case.row}: {case.name}**" not in document]


def update_document(path, lines, cases, main_rows):
    text = path.read_text()
    block = "```text\n" + "\n".join(line.rstrip() for line in lines) + "\n```\n"
    text, count = TABLE_IN_DOCUMENT.subn(lambda m: m.group(1) + block + m.group(2), text)
    if count != 1:
        raise Failure(f"{path} has no place for the table")
    path.write_text(text)
    for name in unexplained(cases, text, main_rows):
        print(f"bench: {path.name} does not say why this is not ahead: {name}", file=sys.stderr)


# ---- The program ----

def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=(
        "Times the library against what a caller would use instead and prints a table of medians."))
    parser.add_argument("--only", action="append", metavar="STEM",
                        help="run <STEM>_bench only (may be repeated)")
    parser.add_argument("--rounds", type=int, default=5, metavar="N",
                        help="how often each program is run (5)")
    parser.add_argument("--repetitions", type=int, default=3, metavar="N",
                        help="how often a program runs each benchmark (3)")
    parser.add_argument("--min-time", type=float, default=0.02, metavar="SECONDS",
                        help="how long each repetition takes at least (0.02)")
    parser.add_argument("--json", type=Path, metavar="FILE",
                        default=ROOT / "build-release" / "bench" / "table.json",
                        help="where the table goes as JSON (build-release/bench/table.json)")
    parser.add_argument("--compare", type=Path, metavar="OLD.json",
                        help="also show what changed since an earlier table")
    parser.add_argument("--document", type=Path, metavar="FILE",
                        help="put the table into this document, between its two marks")
    options = parser.parse_args()
    options.command = " ".join(["scripts/bench", *sys.argv[1:]])
    options.build = ROOT / "build-release"
    return options


def find_programs(options):
    stems = options.only or sorted(path.name.removesuffix("_bench.cpp")
                                   for path in BENCH.glob("*_bench.cpp"))
    programs = [options.build / "bench" / f"{stem}_bench" for stem in stems]
    for program in programs:
        if not program.exists():
            raise Failure(f"there is no program {program.name}")
    return programs


def run(options):
    sections = read_sections(BENCH / "rows.txt")
    known_rows = [row for rows in sections.values() for row in rows]
    old = json.loads(options.compare.read_text()) if options.compare else None
    programs = find_programs(options)
    machine = describe_machine()
    cases = collect(programs, known_rows, options)
    missing = missing_peers(options.build)

    lines = machine_lines(machine, options)
    lines += [f"missing peer: {peer}" for peer in missing]
    lines += ["", *table_lines(cases, sections), "", *summary_lines(cases, sections["main"])]
    print("\n".join(lines))
    table = as_json(cases, machine, missing, options)
    options.json.write_text(json.dumps(table, indent=1) + "\n")
    if options.document:
        update_document(options.document, lines, cases, sections["main"])
    if old:
        print("", *comparison_lines(old, table), sep="\n")


if __name__ == "__main__":
    try:
        run(parse_arguments())
    except (Failure, OSError, subprocess.CalledProcessError) as failure:
        sys.exit(f"bench: {failure}")
