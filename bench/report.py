"""Writes the report of scripts/bench: report.py RESULTS-DIRECTORY REPORT

Beside the report it prints the comparison and the table of README.md, and writes the tables for the
plots into the directory of the results.
"""
import collections
import csv
import pathlib
import statistics
import sys

KXLIB, LAYER, POLL = "kxlib", "kxlib, layer kx", "bare sockets, poll"
DAEMON, BROKER = "sd-bus, dbus-daemon", "sd-bus, dbus-broker"
RATIOS = [("rtt", POLL), ("rtt", LAYER), ("rtt", DAEMON), ("rtt", BROKER), ("rtt", "ZeroMQ"), ("oneway", POLL),
          ("oneway", DAEMON), ("oneway", BROKER), ("oneway", "ZeroMQ")]
README_NAMES = {
    KXLIB: "kxlib, over kxcore",
    POLL: "bare sockets, with poll",
    "bare sockets": "bare sockets, without",
    DAEMON: "sd-bus, over dbus-daemon",
    BROKER: "sd-bus, over dbus-broker",
    "ZeroMQ": "ZeroMQ, from process to process",
    "nng": "nng, from process to process",
}
TITLES = {"rtt": "Round trip, µs", "oneway": "One way, messages a second"}
INTRODUCTION = """# Benchmarks

Written by `scripts/bench`, which measures everything again.

{machine}

All programs send datagrams (or messages, or for D-Bus the number and the text of a datagram) of 64 bytes. A round
trip is a synchronous call of one process to another, which answers with the same content. With kxlib and sd-bus the
server reads the request and writes the answer, and the client checks it; bare sockets, ZeroMQ and nng send the bytes
back unread and check nothing. *Layer kx* is kxlib with the typed calls and services of `kx/`. kxlib goes over kxcore,
D-Bus over a dbus-daemon or dbus-broker, ZeroMQ and nng from process to process, which spares them two of the four hops.
*Bare sockets* are the same four hops between three processes with nothing but sendto and recvfrom, *poll* with a poll
before each receive: the plainest bus with a core in the middle, not the fastest, as kxcore receives several datagrams
at a time and sends over connected sockets.

One way, a stream is acknowledged in groups of eight, with 64 messages under way: none may be lost, and of so many none
is, because kxcore keeps what a receiver has no room for; the queues of the bare sockets are made as long. The client
reads the acknowledgements without an event loop, with kxlib by connection_receive; only sd-bus goes through its loop.

*Pinned*: all processes on one processor. The programs take turns within a round, each round beginning with another
one. Figures are medians of {rounds} rounds, with the smallest and the largest. Nine of ten single figures lie within
{pinned_noise:.0%} of their median when pinned, {free_noise:.0%} when free; smaller differences say little.
"""
GROWTH = {
    "components": "components on the bus",
    "services": "services on the bus",
    "subscribers": "subscribers of a signal",
    "monitors": "monitors",
    "timers": "timers armed",
}
GROWTH_INTRODUCTION = """## How costs grow

Pinned; medians of five runs, with the smallest and the largest. kxcore finds services by siid and by name in hash
tables. A signal is a datagram for each of its subscribers. Armed timers are a list in order of expiry, which arming
one walks; the event loop fires one in each of its cycles. Monitors read on any processor.
"""
MEASURES = {
    "us_per_roundtrip": "round trip, µs",
    "us_per_subscription": "subscription, µs",
    "kxcore_rss_anon_kib": "memory of kxcore (RssAnon), KiB",
    "us_until_all_received": "until all have received it, µs",
    "us_per_arming": "arming and removing one, µs",
    "us_per_firing": "firing one, µs",
}


def read_rounds(path):
    """{(mode, where): {bus: [value of each round]}}"""
    table = collections.defaultdict(lambda: collections.defaultdict(list))
    for mode, where, _, bus, value in csv.reader(path.open(), delimiter="|"):
        table[mode, where][bus].append(float(value))
    return table


def read_growth(path):
    """{what: {population: {measure: [value of each run]}}}"""
    table = collections.defaultdict(lambda: collections.defaultdict(lambda: collections.defaultdict(list)))
    for line in path.read_text().splitlines():
        (what, population), *measures = (word.split("=") for word in line.split())
        for measure, value in measures:
            table[what][int(population)][measure].append(float(value))
    return table


def shown(values):
    if not values:
        return "–"
    digits = 0 if all(value.is_integer() for value in values) else 1 if max(values) >= 10 else 2
    return f"{statistics.median(values):,.{digits}f} ({min(values):,.{digits}f}–{max(values):,.{digits}f})"


def noise(rounds, where):
    """The deviation from their median that nine of ten figures stay within."""
    deviations = [abs(value / statistics.median(values) - 1)
                  for mode in TITLES for values in rounds[mode, where].values() for value in values]
    return statistics.quantiles(deviations, n=10)[-1]


def markdown_table(head, rows):
    lines = [head, ["---"] + ["---:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines) + "\n"


def bus_table(rounds):
    columns = [(mode, where) for mode in TITLES for where in ("pinned", "free")]
    rows = [[bus] + [shown(rounds[column].get(bus, [])) for column in columns] for bus in rounds[columns[0]]]
    return markdown_table([""] + [f"{TITLES[mode]}, {where}" for mode, where in columns], rows)


def ratio_table(rounds):
    rows = []
    for mode, other in RATIOS:
        values = rounds[mode, "pinned"]
        ratios = [own / theirs for own, theirs in zip(values[KXLIB], values[other])]
        rows.append([f"{TITLES[mode].split(',')[0]}, kxlib / {other}",
                     f"{statistics.median(ratios):.2f} ({min(ratios):.2f}–{max(ratios):.2f})"])
    return markdown_table(["Ratio within a round, pinned", "Measured"], rows)


def readme_table(rounds):
    """What README.md shows in its section "Speed"."""
    lines = [f"|{'':34}|{'round trip':>12} |{'one way':>17} |", f"|{'-' * 34}|{'-' * 12}:|{'-' * 17}:|"]
    for bus, name in README_NAMES.items():
        rtt, oneway = (statistics.median(rounds[mode, "pinned"][bus]) for mode in TITLES)
        lines.append(f"| {name:<32} | {rtt:8.1f} µs | {round(oneway, -2):7,.0f} a second |")
    return "\n".join(lines) + "\n"


def growth_table(what, populations):
    measures = list(next(iter(populations.values())))
    rows = [[f"{population:,}"] + [shown(values[measure]) for measure in measures]
            for population, values in populations.items()]
    return markdown_table([GROWTH[what]] + [MEASURES[measure] for measure in measures], rows)


def plot_of(what):
    return "" if what == "monitors" else f"\n![Growth](benchmarks-{what}.svg)\n"


def encoding_section(path):
    lines = path.read_text().splitlines()
    start = next(i for i, line in enumerate(lines) if line.startswith("name,"))
    times = {row["name"][:-len("_median")].strip('"'): float(row["cpu_time"])
             for row in csv.DictReader(lines[start:]) if row["name"].endswith("_median")}
    values = sorted({name.split("/")[0] for name in times} - {"payload"})
    rows = [[value] + [f"{times[f'{value}/{kind}']:.1f}" for kind in ("encode", "decode", "memcpy")]
            for value in values]
    own, by_hand = times["payload/operators"], times["payload/by_hand"]
    return (markdown_table(["Nanoseconds", "encode", "decode", "memcpy of the same bytes"], rows) +
            f"\nThe payload of the 64-byte datagram, a number and a text, written and read: {own:.1f} ns; packed and "
            f"unpacked by hand: {by_hand:.1f} ns.\n")


def write_plot_tables(results, rounds, growth):
    for mode in TITLES:
        buses = rounds[mode, "pinned"]
        lines = [['"' + bus.replace(" ", "\\n") + '"'] + [f(rounds[mode, where][bus]) for where in ("pinned", "free")
                                 for f in (statistics.median, min, max)] for bus in buses]
        (results / f"{mode}.dat").write_text("".join(" ".join(map(str, line)) + "\n" for line in lines))
    for what, populations in growth.items():
        lines = [[population] + [statistics.median(values) for values in measures.values()]
                 for population, measures in populations.items()]
        (results / f"{what}.dat").write_text("".join(" ".join(map(str, line)) + "\n" for line in lines))


def main():
    results, report = map(pathlib.Path, sys.argv[1:])
    rounds, growth = read_rounds(results / "rounds"), read_growth(results / "growth")
    machine = (results / "machine").read_text().strip()
    number = len(rounds["rtt", "pinned"][KXLIB])
    comparison = bus_table(rounds) + "\n" + ratio_table(rounds)
    introduction = INTRODUCTION.format(machine=machine, rounds=number, pinned_noise=noise(rounds, "pinned"),
                                       free_noise=noise(rounds, "free"))
    parts = [introduction, comparison,
             "![Round trips](benchmarks-rtt.svg)\n\n![One-way messages](benchmarks-oneway.svg)\n",
             GROWTH_INTRODUCTION]
    parts += [growth_table(what, growth[what]) + plot_of(what) for what in GROWTH]
    parts += ["## Encoding\n", encoding_section(results / "encoding"),
              "## What a round trip takes\n\nEach process of one synchronous call, in steady state.\n",
              (results / "counts").read_text()]
    report.write_text("\n".join(parts))
    write_plot_tables(results, rounds, growth)
    print(comparison, readme_table(rounds), sep="\n")


main()
