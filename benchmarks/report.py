#!/usr/bin/python3
"""Tables and plots of what table_benchmarks, embedding_benchmarks and embedding_beside_torch.py measured."""
import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import textwrap
import time
from pathlib import Path
from typing import Any, Callable, NamedTuple, Optional

import matplotlib  # type: ignore[import]
from matplotlib.figure import Figure  # type: ignore[import]
from matplotlib.ticker import EngFormatter, LogLocator  # type: ignore[import]

Results = dict[str, Any]

DOCS = Path(__file__).resolve().parents[1] / "docs"
LINE_WIDTH = 118


class Plot(NamedTuple):
    file: str  # without its ending
    caption: str
    draw: Callable[[Figure, Results], None]


class Section(NamedTuple):
    title: str
    head: list[str]
    rows: list[list[str]]
    notes: list[str]
    plots: list[Plot]


# ---- figures -------------------------------------------------------------------------------------------------------


def tables(results: Results) -> list[str]:
    """Names of the tables that ran the workloads, in the order of the report."""
    return list(dict.fromkeys(name for row in results["workloads"].values() for name in row["nanoseconds"]))


def nanoseconds(row: Results, table: str) -> Optional[float]:
    samples = row["nanoseconds"].get(table)
    return statistics.median(samples) if samples else None


def ratio(results: Results, row: Results, table: str) -> Optional[float]:
    """How much faster than oneTBB in the row that this one is compared with."""
    time = nanoseconds(row, table)
    measure = nanoseconds(results["workloads"][row["comparedWith"]], "oneTBB")
    return measure / time if measure and time else None


def memory_rate(results: Results, name: str) -> float:
    return statistics.median(rates[name] for rates in results["limits"]["rounds"])


def limit(results: Results, row: Results) -> float:
    """Nanoseconds that the lines and bytes of an operation would cost at the machine's rates."""
    names = ("oneThreadLineNanoseconds", "oneThreadBytesASecond")
    line, rate = (memory_rate(results, n if row["threads"] == 1 else n[9].lower() + n[10:]) for n in names)
    return row["lines"] * line + row["bytes"] * 1e9 / rate


def share(results: Results, row: Results, table: str) -> Optional[float]:
    """Per cent of what the memory allows."""
    time = nanoseconds(row, table)
    return 100 * limit(results, row) / time if time else None


def slower(calls: list[Results], beyond: str) -> float:
    """The time that a share of the calls exceeds, in the median of the rounds."""
    return statistics.median(rounds["slower"][beyond] for rounds in calls)


# ---- tables --------------------------------------------------------------------------------------------------------


def duration(time: float) -> str:
    for unit, factor, digits in (("ns", 1e0, 0), ("us", 1e3, 1), ("ms", 1e6, 2)):
        if time < 1e3 * factor:
            return f"{time / factor:.{digits}f} {unit}"
    return f"{time / 1e9:.2f} s"


def operations(results: Results) -> Section:
    names = tables(results)

    def cell(row: Results, table: str) -> str:
        time = nanoseconds(row, table)
        return f"{1e3 / time:.2f}  {ratio(results, row, table):.2f}x" if time else "-"

    return Section(
        "Operations a second",
        ["million a second, ratio to oneTBB", *names],
        [[row["title"], *(cell(row, table) for table in names)] for row in results["workloads"].values()],
        [
            f"{results['entries']:,} entries of {results['valueBytes']} bytes, {results['threads']} threads (exports: "
            f"one). Medians of {results['rounds']} rounds; in every round each table runs once, and the order of the "
            "tables changes from round to round.",
            "Hits and misses come in random order, and a word of each value that is found is read. A batch is 256 "
            "keys. Where a table has no call for batches, its batched rows are single calls; rows that only Kavo has "
            "are compared with oneTBB's single calls.",
            "libcuckoo begins with room for 262,144 entries wherever others begin with 1,000: lookups and inserts "
            "beside its growth crash now and then in smaller tables.",
            "The training mix finds or inserts a key and adds 16 numbers to its value. Keys are heavy-tailed: the r-th "
            "most frequent comes up in proportion to 1/r, and one key in twenty is new. oneTBB and libcuckoo add under "
            "their lock of the entry; Kavo gives addresses (KavoBatchLookupOrInsert, or KavoLookupOrInsert in single "
            "calls) and the addition uses relaxed atomic accesses.",
            "Exports visit every entry. libcuckoo keeps values in its cells and reads them in order; oneTBB follows "
            "the links of its buckets; Kavo hands out keys and addresses (KavoBatchGetNext, 1,024 a call), and whoever "
            "reads the values goes to them one by one.",
            "For Kavo a missed key in a single call is a failure, for which it writes log lines: they go to a sink of "
            "the program (KavoSetLogSink) that drops them, and this is part of what is measured.",
        ],
        [Plot("ratios", "How much faster than oneTBB", draw_ratios)],
    )


def memory_limits(results: Results) -> Section:
    names = tables(results)

    def cell(row: Results, table: str) -> str:
        time = nanoseconds(row, table)
        return f"{time:.1f} ns  {share(results, row, table):.0f}%" if time else "-"

    def cells(row: Results) -> list[str]:
        return [row["title"], f"{row['lines']:.2f}", f"{row['bytes']:.0f}", f"{limit(results, row):.1f} ns"]

    return Section(
        "Beside what the memory allows",
        ["share of the memory's rate", "lines", "bytes", "limit", *names],
        [cells(row) + [cell(row, table) for table in names] for row in results["workloads"].values()],
        [
            "This machine reads independent cache lines at random places, requested ahead, in "
            f"{memory_rate(results, 'lineNanoseconds'):.2f} ns each with {results['threads']} threads "
            f"({memory_rate(results, 'oneThreadLineNanoseconds'):.2f} ns with one), and "
            f"{memory_rate(results, 'bytesASecond') / 1e9:.1f} GB a second in order "
            f"({memory_rate(results, 'oneThreadBytesASecond') / 1e9:.1f} with one thread), out of "
            f"{results['limits']['rangeBytes'] / 2**20:.0f} MiB on huge pages: medians of the same rounds.",
            "Lines and bytes are what one operation on Kavo's layout touches at least: lines at random places, bytes "
            "in order. The limit is their cost at those rates; a share is the limit over the measured time of an "
            f"operation (wall time over operations of all threads). Cells are {results['cellBytes']} bytes, "
            f"{64 // results['cellBytes']} to a line; a value and its header take {results['blockBytes']} bytes, so "
            f"that a whole value lies on {results['wholeValueLines']:.2f} lines. A line is counted once, read or "
            "written. In the training mix it is counted once for each key that comes up, as if every further access "
            "were free. What still lies in the processor's caches comes faster than the limit says.",
        ],
        [Plot("limits", "Share of what the memory allows", draw_limits)],
    )


def growth(results: Results) -> Section:
    def cells(calls: list[Results]) -> list[str]:
        worst = [rounds["worst"] for rounds in calls]
        times = [slower(calls, "0.500000"), slower(calls, "0.001000"), statistics.median(worst), max(worst)]
        return [duration(time) for time in times]

    columns = ["p50", "p99.9", "worst", "worst of all"]
    return Section(
        "While a table grows",
        ["", "insert " + columns[0], *columns[1:], "lookup " + columns[0], *columns[1:]],
        [
            [table, *cells(calls["insert"]), *cells(calls["lookup"])]
            for table, calls in results["growthNanoseconds"].items()
        ],
        [
            f"One thread inserts single keys from 1,000 entries to {results['entries']:,}; another looks up keys whose "
            "insert has returned, chosen at random. Each call is timed, the clock included. Medians of "
            f"{results['latencyRounds']} rounds, and the worst call of all rounds. In the row of bare memory the "
            f"inserting thread writes {results['grownEntryBytes']} bytes an entry, one after the other, to fresh "
            "memory on huge pages, and the other reads a byte at random of what was written: long times there are the "
            "doing of the system, which has to find and clear the pages, and of whatever else runs, and such times are "
            "in the other rows too.",
        ],
        [
            Plot("growth_inserts", "Worst insert while a table grows", lambda f, r: draw_growth(f, r, "insert")),
            Plot("growth_lookups", "Worst lookup while a table grows", lambda f, r: draw_growth(f, r, "lookup")),
            Plot("insert_tail", "Inserts while a table grows: how many are how slow", draw_insert_tail),
        ],
    )


def memory(results: Results) -> Section:
    def cells(measured: Results) -> list[str]:
        return [
            f"{measured['table']}, {measured['fill']}",
            f"{measured['bytesAnEntry']:.1f}",
            f"{measured['peakBytesAnEntry']:.1f}",
            f"{measured['createMilliseconds']:.2f} ms",
            f"{measured['createdMebibytes']:.1f} MiB",
            f"{results['entries'] / measured['fillSeconds'] / 1e6:.2f} M/s",
            f"{measured['destroyMilliseconds']:.1f} ms",
        ]

    return Section(
        "Memory",
        ["", "bytes an entry", "at the peak", "creation", "then resident", "filling", "destruction"],
        [cells(measured) for measured in results["memory"]],
        [
            f"Resident memory of the process, less what it was before the table was made, over {results['entries']:,} "
            f"entries of {results['valueBytes']} bytes; the peak is the most that was resident while the table was "
            "filled, growth included. Each row is a process of its own.",
        ],
        [Plot("memory", "Resident bytes an entry", draw_memory)],
    )


def embeddings(results: Results) -> Section:
    def cells(row: Results) -> list[str]:
        kavo, other = (statistics.median(row[name]) for name in ("kavo", "other"))
        return [row["title"], f"{kavo:.2f}", f"{other:.2f}", row["unit"], f"{kavo / other:.2f}", row["beside"]]

    return Section(
        "Embeddings",
        ["", "Kavo", "the other", "unit", "Kavo / other", "the other is"],
        [cells(row) for row in results["embeddings"]],
        [
            f"{results['embeddingRows']:,} rows of 16 floats (a quarter of that of 64), keys heavy-tailed: the r-th "
            "most frequent comes up in proportion to 1 / r. Medians of samples that alternate.",
            "A step is forward and backward over 4,096 bags of 26 keys, sums. PyTorch's is "
            "`nn.EmbeddingBag(sparse=True)` over a table that has all rows already, with `optim.SGD`, `Adagrad` or "
            "`SparseAdam`: a row there is one cache line found by its number, here three found by a key. Ratios of "
            "times are good below 1, ratios of rates (GB/s) above.",
            "Saving and loading are those of one full snapshot with its checks; beside them as many bytes are written "
            "to a file of that folder and brought to the disk, and read back, most of them from the system's cache.",
        ],
        [],
    )


SECTIONS = [operations, memory_limits, growth, memory, embeddings]


def in_words(section: Section, padded: bool) -> str:
    """In Markdown; `padded` for a reader on a terminal."""
    cells = [section.head, *section.rows]
    widths = [max(map(len, column)) if padded else 0 for column in zip(*cells)]
    rows = [[row[0].ljust(widths[0]), *map(str.rjust, row[1:], widths[1:])] for row in cells]
    rule = "|---|" + "--:|" * (len(widths) - 1)
    if padded:
        rule = "|" + "-" * (widths[0] + 2) + "|" + "".join("-" * (width + 1) + ":|" for width in widths[1:])
    lines = ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join([f"## {section.title}\n", lines[0], rule, *lines[1:], *("\n" + wrapped(n) for n in section.notes)])


def wrapped(text: str) -> str:
    return textwrap.fill(text, LINE_WIDTH, break_long_words=False, break_on_hyphens=False)


# ---- plots ---------------------------------------------------------------------------------------------------------

# A table has the same colour in every plot.
COLOURS = {"oneTBB": "#4477aa", "libcuckoo": "#ccbb44", "Kavo whole": "#228833", "Kavo gradual": "#66ccaa"}
GREY = "#aaaaaa"


def bars(figure: Figure, clusters: list[tuple[str, dict[str, float]]], colours: dict[str, str], axis: str) -> Any:
    """Clusters of bars from top to bottom, each with its title and the bars that it has."""
    placed: dict[str, list[tuple[float, float]]] = {}
    centres = []
    place = 0.0
    for _, values in clusters:
        centres.append(place + (len(values) - 1) / 2)
        for name, value in values.items():
            placed.setdefault(name, []).append((place, value))
            place += 1
        place += 0.8
    figure.set_figheight(1 + 0.13 * place)
    axes = figure.subplots()
    for name, points in placed.items():
        axes.barh(*zip(*points), 1, label=name, color=colours.get(name, GREY))
    axes.set_yticks(centres, [title for title, _ in clusters])
    axes.set_ylim(place, -1)
    axes.tick_params(axis="y", length=0)
    axes.set_xlabel(axis)
    axes.grid(axis="x")
    axes.legend(loc="upper left", bbox_to_anchor=(1, 1))
    return axes


def row_bars(figure: Figure, results: Results, names: list[str], axis: str, length: Callable[..., Any]) -> Any:
    clusters = [
        (row["title"], {table: length(results, row, table) for table in names if nanoseconds(row, table)})
        for row in results["workloads"].values()
    ]
    return bars(figure, clusters, COLOURS, axis)


def draw_ratios(figure: Figure, results: Results) -> None:
    """Without the floor, which is no table that one could use."""
    names = [table for table in tables(results) if table != "floor"]
    row_bars(figure, results, names, "speed, oneTBB = 1", ratio).axvline(1, color="black", linewidth=0.8)


def draw_limits(figure: Figure, results: Results) -> None:
    row_bars(figure, results, tables(results), "per cent of the memory's rate", share)


def draw_growth(figure: Figure, results: Results, step: str) -> None:
    """The median over the rounds of each slice's worst; a panel a table, so that none hides another."""
    measured = results["growthNanoseconds"]
    figure.set_figheight(1 + 1.2 * len(measured))
    panels = figure.subplots(len(measured), 1, sharex=True, sharey=True)
    for axes, (table, calls) in zip(panels, measured.items()):
        slices = [
            [time for time in times if time > 0] for times in zip(*(rounds["worstOfSlices"] for rounds in calls[step]))
        ]
        entries = [results["entries"] * (i + 1) / len(slices) / 1e6 for i in range(len(slices))]
        # Where no round had a call, the line has a gap.
        seconds = [statistics.median(times) / 1e9 if times else float("nan") for times in slices]
        axes.plot(entries, seconds, color=COLOURS.get(table, GREY), marker=".", markersize=4, linewidth=1.2)
        axes.set_yscale("log")
        axes.yaxis.set_major_locator(LogLocator(numticks=5))
        axes.yaxis.set_major_formatter(EngFormatter("s"))
        axes.set_title(table, loc="left", fontsize=10, pad=3)
        axes.grid()
    panels[-1].set_xlabel("million entries")
    figure.supylabel("worst call in each two-hundredth of the growth", fontsize=10)


def draw_insert_tail(figure: Figure, results: Results) -> None:
    axes = figure.subplots()
    for table, calls in results["growthNanoseconds"].items():
        shares = list(calls["insert"][0]["slower"])
        seconds = [slower(calls["insert"], beyond) / 1e9 for beyond in shares]
        percents = [100 * float(beyond) for beyond in shares]
        axes.loglog(percents, seconds, color=COLOURS.get(table, GREY), marker="o", markersize=4, label=table)
    axes.invert_xaxis()
    axes.xaxis.set_major_formatter("{x:g}")
    axes.yaxis.set_major_formatter(EngFormatter("s"))
    axes.set_xlabel("per cent of the inserts that are slower")
    axes.set_ylabel("time of an insert")
    axes.grid()
    axes.legend(loc="upper left", bbox_to_anchor=(1, 1))


def draw_memory(figure: Figure, results: Results) -> None:
    clusters = [
        (f"{one['table']}, {one['fill']}", {"filled": one["bytesAnEntry"], "at the peak": one["peakBytesAnEntry"]})
        for one in results["memory"]
    ]
    bars(figure, clusters, {"filled": "#228833", "at the peak": "#bbbbbb"}, "bytes an entry")


def draw(plot: Plot, results: Results, folder: Path) -> None:
    style = {
        "svg.fonttype": "none",  # text stays text
        "svg.hashsalt": plot.file,  # the same numbers give the same file
        "axes.spines.top": False,
        "axes.spines.right": False,
        "axes.axisbelow": True,
        "figure.constrained_layout.h_pad": 0.1,
        "grid.color": "#dddddd",
    }
    with matplotlib.rc_context(style):
        figure = Figure(figsize=(11, 5), layout="constrained")
        plot.draw(figure, results)
        figure.suptitle(f"{plot.caption}, {results['entries']:,} entries", fontsize=12)
        figure.savefig(folder / f"{plot.file}.svg", metadata={"Date": None})


# ---- the run and the page ------------------------------------------------------------------------------------------


def machine_in_words() -> str:
    """For a reader elsewhere: no names of hosts or people."""

    def read(path: str) -> str:
        return Path(path).read_text() if Path(path).exists() else ""

    def found(pattern: str, text: str) -> str:
        match = re.search(pattern, text, re.MULTILINE)
        return match[1] if match else "unknown"

    processor = read("/proc/cpuinfo")
    is_virtual = re.search(r"^flags.*\bhypervisor\b", processor, re.MULTILINE)
    # As the system says it, "32768K". (sysconf counts the caches of all cores of some processors, used or not.)
    caches = [found("(.+)", read(f"/sys/devices/system/cpu/cpu0/cache/index{index}/size")) for index in (2, 3)]
    huge_pages = found(r"\[(.*)\]", read("/sys/kernel/mm/transparent_hugepage/enabled"))
    gibibytes = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30
    return (
        f"{found(r'^model name.*: (.*)', processor)} with {os.cpu_count()} cores"
        f"{' (a virtual machine)' if is_virtual else ''}, caches of {caches[0]} (second level) and {caches[1]} (third "
        f"level), {gibibytes:.0f} GiB of memory, transparent huge pages: {huge_pages}"
    )


def output(command: list[str]) -> Any:
    # PyTorch's idle threads would hold the cores that others are measured on.
    run = subprocess.run(command, stdout=subprocess.PIPE, check=False, env={**os.environ, "OMP_WAIT_POLICY": "PASSIVE"})
    if run.returncode != 0:
        sys.exit(run.returncode)
    return json.loads(run.stdout)


def measure(build: Path, options: list[str], rows: int) -> Results:
    results: Results = {
        "machine": machine_in_words(),
        **output([str(build / "benchmarks" / "table_benchmarks"), *options]),
    }
    threads = str(results["threads"])
    begin = time.monotonic()
    measured: list[Any] = []
    for count in dict.fromkeys(("1", threads)):
        for optimiser in ("sgd", "adagrad", "adam"):
            print(f"beside PyTorch: {optimiser}, {count} thread(s)", file=sys.stderr)
            script = str(Path(__file__).with_name("embedding_beside_torch.py"))
            library = str(build / "embedding" / "libkavo_embedding.so")
            common = ["--rows", str(rows), "--threads", count, "--optimiser", optimiser]
            measured += output(["/usr/bin/python3", script, library, *common])
    print("embeddings", file=sys.stderr)
    program = str(build / "benchmarks" / "embedding_benchmarks")
    measured += output([program, "--rows", str(rows), "--threads", threads, "--rounds", str(results["rounds"])])
    results["seconds"] += time.monotonic() - begin
    return {**results, "embeddingRows": rows, "embeddings": measured}


def page(results: Results, sections: list[Section]) -> str:
    command = "./run bench --entries {entries} --threads {threads} --rounds {rounds}"
    command = (command + " --embedding-rows {embeddingRows} --report").format(**results)
    head = (
        f"# Performance\n\nMeasured and written by\n\n```sh\n{command}\n```\n\n"
        "against the maps that one would use instead, in one process and in the same rounds.\n"
        "All numbers: [performance/results.json](performance/results.json)."
    )
    subjects = (
        f"Tables: oneTBB is `concurrent_hash_map` of oneTBB {results['oneTbbVersion']}; libcuckoo is `cuckoohash_map`; "
        "Kavo whole and Kavo gradual are one library, called through its exported functions, in its two ways of "
        "growing; floor is a bare table with Kavo's cells and blocks that cannot grow, does no checks and is no "
        "product: what the layout itself costs."
    )
    machine = f"Machine: {results['machine']}; built with {results['compiler']}."
    parts = [head, wrapped(machine), wrapped(subjects)]
    for section in sections:
        parts.append(in_words(section, padded=False))
        parts += [f"![{plot.caption}](performance/{plot.file}.svg)" for plot in section.plots]
    return "\n\n".join(parts) + "\n"


def write_report(results: Results, sections: list[Section], folder: Path) -> None:
    details = folder / "performance"
    details.mkdir(parents=True, exist_ok=True)
    # Lists of numbers on one line each.
    text = re.sub(r"\[[^\[\]{}]*\]", lambda numbers: " ".join(numbers[0].split()), json.dumps(results, indent=2))
    (details / "results.json").write_text(text + "\n")
    for section in sections:
        for plot in section.plots:
            draw(plot, results, details)
    (folder / "performance.md").write_text(page(results, sections))
    print(f"wrote {folder}/performance.md and {details}/")


def main() -> None:
    parser = argparse.ArgumentParser(
        usage="./run bench [--entries N] [--threads T] [--rounds R] [--embedding-rows N] [--report] "
        "[--report-to FOLDER]\n"
        "       benchmarks/report.py docs/performance/results.json [--report] [--report-to FOLDER]",
        description="Kavo's tables beside the maps that one would use instead, and beside what the memory allows.",
        epilog="Measures 1,000,000 entries with 2 threads in 5 rounds (3 of more than 4,000,000) unless N, T and R say "
        "otherwise; or shows again what an earlier run measured.",
        allow_abbrev=False,
    )
    parser.add_argument(
        "source", help="the build of the programs that measure, which ./run bench names; or results.json"
    )
    parser.add_argument("--embedding-rows", metavar="N", type=int, default=10_000_000, help="rows of the embeddings")
    parser.add_argument("--report", action="store_true", help="write performance.md, the numbers and the plots")
    parser.add_argument(
        "--report-to", metavar="FOLDER", type=Path, default=DOCS, help="the folder that the report goes to"
    )
    options, measuring = parser.parse_known_args()
    if options.source.endswith(".json"):
        if measuring:
            parser.error("nothing is measured for a results.json: " + " ".join(measuring))
        results = json.loads(Path(options.source).read_text())
    else:
        results = measure(Path(options.source), measuring, options.embedding_rows)
    sections = [section(results) for section in SECTIONS]
    for section in sections:
        print(in_words(section, padded=True), end="\n\n")
    print(f"took {results['seconds']:.0f} s")
    if options.report:
        write_report(results, sections, options.report_to)


if __name__ == "__main__":
    main()
