"""The figures of the outputs PUBSUB and STREAM and of instructions as Markdown, each beside its aim."""

from rig import LINE_RATE

CYCLES = 1.5  # for one instruction, on a Cortex-A7
CLOCK = 1e9  # Hz


def table(head, rows):
    return "\n".join(["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
                     + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def judged(value, is_met):
    return [value, "yes" if is_met else "no"]


def instructions(figures):
    def radios(value):
        return f"{CLOCK / CYCLES / value / LINE_RATE:.1f}"

    rows = [[name, f"{value:,.0f}", f"{CLOCK / CYCLES / value:,.0f}", radios(value)] for name, value in figures.items()]
    head = ["outputs", "instructions", "frames/s on a Cortex-A7 of 1 GHz", "radios at line rate that one core carries"]
    return "### Instructions per frame (valgrind; a dPMR call)\n\n" + table(head, rows)


def durable(figures):
    def row(name, aim, value, is_met):
        return [name, aim, *judged(value, is_met)]

    rows = []
    for kind in ("GCP", "PUBSUB"):
        rate, p50, p99 = (figures[f"{kind}: {name}"] for name in ("rate", "p50", "p99"))
        rows.append([f"{kind}: messages/s to a server 0.7 s away", *(
            ["2,000 or more", *judged(f"{rate:,.0f}", rate >= 2000)] if kind == "PUBSUB" else ["", f"{rate:.1f}", ""])])
        name = f"{kind}: frame at the radio to request at a server on the same machine, ten frames/s, p50 and p99"
        value = f"{p50:.1f} ms, {p99:.1f} ms"
        rows.append([name, *(["p99 under 20 ms", *judged(value, p99 < 20)] if kind == "PUBSUB" else ["", value, ""])])
    memory, status = figures["memory"], figures["status"]
    longer = figures["start with"] - figures["start without"]
    rows += [row("a million messages wait: largest resident memory", "under 40 MiB", f"{memory:.1f} MiB", memory < 40),
             row("a million messages wait: later start", "under 2 s", f"{longer:+.2f} s", longer < 2),
             row("a million messages wait: quillonctl status", "under 1 s", f"{status:.2f} s", status < 1)]
    for name, value in figures.items():
        if name.startswith("written"):
            at_once = name.endswith("at once")
            rows.append([f"bytes {name}, ten frames/s: for each", "0" if at_once else "", f"{value:,.0f}",
                         ("yes" if value == 0 else "no") if at_once else ""])
    return "### GCP beside PUBSUB\n\n" + table(["figure", "aim", "measured", "met"], rows)


def load(figures):
    rows = [[name, f"{f['sent']:,}", str(f["lost RAW"]), str(f["lost FILE"]),
             str(f["lost PUBSUB"]) if "PUBSUB" in name else "", f"{f['p50']:,.0f} µs", f"{f['p99']:,.0f} µs",
             f"{f['core']:.1%}"] for name, f in figures.items()]
    without, beside = figures["RAW FILE"]["p99"], figures["RAW FILE PUBSUB"]["p99"]
    return ("### Eight radios at line rate, PUBSUB's server 0.7 s away\n\n" + table(
        ["outputs", "frames sent", "lost at RAW", "FILE", "PUBSUB", "RAW p50", "RAW p99", "of a core"], rows)
        + f"\nRAW's p99 with PUBSUB is {beside / without:.2f} times that without; the aim is at most 2:"
        f" {'met' if beside <= 2 * without else 'missed'}.\n")


def stream(figures):
    rows = []
    for order, f in figures["beside"].items():
        ratio = f["STREAM p50"] / f["RAW p50"]
        rows.append([order, *(f"{f[name]:,.0f} µs" for name in ("RAW p50", "STREAM p50", "RAW p99", "STREAM p99")),
                     *judged(f"{ratio:.2f}", ratio <= 1.2)])
    beside = table(["rows of the configuration", "RAW p50", "STREAM p50", "RAW p99", "STREAM p99", "ratio of p50",
                    "at most 1.2"], rows)
    f = figures["stuck"]
    change = f["stopped p99"] / f["reads p99"] - 1
    stuck = table(["the stream's client", "RAW p50", "RAW p99"],
                  [[name, *(f"{f[f'{name} {quantile}']:,.0f} µs" for quantile in ("p50", "p99"))]
                   for name in ("reads", "stopped")])
    clients = table(["clients", "frames sent", "records lost", "of a core", "resident memory"],
                    [[str(c["clients"]), f"{c['sent']:,}", str(c["lost"]), f"{c['core']:.1%}", f"{c['rss']:.1f} MiB"]
                     for c in figures["clients"]])
    return (f"### STREAM beside RAW, one client\n\n{beside}\nA client that has stopped reading changes RAW's p99 by"
            f" {change:+.1%}; the aim is less than a tenth: {'met' if change < 0.1 else 'missed'}.\n\n"
            f"{stuck}\n### STREAM: many clients, eight radios at line rate\n\n{clients}")


def console(figures):
    idle, latency = figures["idle"], figures["latency"]
    rows = [["idle, CPU seconds per hour", "under 5", *judged(f"{idle['cpu_per_hour']:.1f}", idle["cpu_per_hour"] < 5)],
            ["idle, resident memory", "under 15 MiB", *judged(f"{idle['rss']:.1f} MiB", idle["rss"] < 15)],
            [f"{figures['pages']} open pages, 100 frames/s: behind, records missed", "0, 0",
             *judged(f"{figures['behind']}, {figures['missed']}", not figures["behind"] + figures["missed"])],
            ["the same: of a core, resident memory", "", f"{figures['core']:.1%}, {figures['rss']:.1f} MiB", ""]]
    for name in ("p50", "p99"):
        rows.append([f"the same: the daemon's RAW {name} without and with", "",
                     f"{latency[f'without {name}']:,.0f} µs, {latency[f'with {name}']:,.0f} µs", ""])
    return "### Console\n\n" + table(["figure", "aim", "measured", "met"], rows)
