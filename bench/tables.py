"""The figures of a run as Markdown."""

from outputtables import console, durable, instructions, load, stream, table

BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"


def render(results):
    parts = [f"Measured on {results['date']}: {results['machine']}; "
             + ", ".join(f"{name} {version}" for name, version in results["versions"].items()) + ".\n"]
    for key, renderer in (("comparison", comparison), ("fleet", fleet), ("idle", idle), ("start", start),
                          ("size", size), ("database", database), ("instructions", instructions),
                          ("durable", durable), ("load", load),
                          ("stream", stream), ("console", console)):
        if key in results:
            parts.append(renderer(results[key]))
    parts[0] += host(results.get("host", {}).values())
    if {"comparison", "fleet", "idle"} <= results.keys():
        parts.append(aims(results["comparison"], results["fleet"], results["idle"]))
    return "\n".join(parts)


def host(parts):
    """How often the machine's host disturbed a measurement."""
    measurements, repetitions, disturbed = (sum(part[name] for part in parts)
                                            for name in ("measurements", "repetitions", "disturbed"))
    return (f"\n{measurements} short measurements took {measurements + repetitions} runs, because of the host of the"
            f" machine; {disturbed} of them were disturbed to the end.\n") if measurements else ""


def aims(medians, radios, idle_figures):
    """What the figures are held against."""
    rows = []

    def add(aim, measured, is_met):
        rows.append([aim, measured, "yes" if is_met else "no"])

    for where in ("a core each", "any core"):
        for figure, peer, limit in (("p50", "socat", 2), ("p99", "socat", 4), ("p50", "ser2net", 0.1)):
            ratio = medians["quillon"][f"{figure}, {where}"] / medians[peer][f"{figure}, {where}"]
            add(f"{figure}, {where}: at most {limit} times {peer}'s", f"{ratio:.2g}", ratio <= limit)
    for name in ("quillon", "quillon, RAW ERAW FILE"):
        add(f"{name}: 50 radios of 75 frames/s", f"{medians[name]['rate'] / 75:.0f} radios",
            medians[name]["rate"] >= 50 * 75)
    first, last = radios[0], radios[-1]
    lost = sum(one["lost"] for one in radios)
    add("radios at line rate: no frame lost", f"{lost}", lost == 0)
    shares = [one["core"] / one["radios"] for one in (first, last)]
    add("CPU per radio: no more with many", f"{shares[0]:.2%} with {first['radios']}, {shares[1]:.2%} with "
        f"{last['radios']}", shares[1] <= shares[0])
    growth = (last["rss"] - first["rss"]) / max(last["radios"] - first["radios"], 1)
    add("memory of one more radio: under 0.25 MiB", f"{growth:.2f} MiB", growth < 0.25)
    add("idle: under 10 CPU seconds per hour", f"{idle_figures['cpu_per_hour']:.1f}", idle_figures["cpu_per_hour"] < 10)
    add("idle: under 25 MiB", f"{idle_figures['rss']:.1f} MiB", idle_figures["rss"] < 25)
    return "### Aims\n\n" + table(["aim", "measured", "met"], rows)


def comparison(medians):
    def ratio(value, peer, figure):
        return f"{value / medians[peer][figure]:.2g}"

    rows = []
    for name, figures in medians.items():
        for figure, value in figures.items():
            label, unit = ("highest rate", "frames/s") if figure == "rate" else (figure, "µs")
            rows.append([name, label, f"{value:,.0f} {unit}",
                         ratio(value, "socat", figure), ratio(value, "ser2net", figure)])
    return "### Latency and rate\n\n" + table(["program", "figure", "median", "to socat", "to ser2net"], rows)


def fleet(rows):
    return "### Radios at line rate (38400 bit/s each; RAW and FILE)\n\n" + table(
        ["radios", "frames sent", "lost", "CPU seconds", "of a core", "per radio", "resident memory"],
        [[str(r["radios"]), f"{r['sent']:,}", str(r["lost"]), f"{r['cpu']:.1f}", f"{r['core']:.1%}",
          f"{r['core'] / r['radios']:.2%}", f"{r['rss']:.1f} MiB"] for r in rows])


def idle(figures):
    return "### Idle, 8 identified radios\n\n" + table(["figure", "value"], [
        ["CPU seconds per hour", f"{figures['cpu_per_hour']:.1f}"],
        ["wake-ups per second", f"{figures['wakeups']:.1f}"],
        ["resident memory", f"{figures['rss']:.1f} MiB"]])


def start(figures):
    return "### Start\n\n" + table(["from the start of the process to", "seconds"], [
        ["the first scan's radio opened", f"{figures['scan']:.2f}"],
        ["the first frame forwarded", f"{figures['frame']:.2f}"]])


def size(figure):
    return f"Size of the executable, stripped: {figure / 1024:.0f} KiB.\n"


def database(figures):
    return "### Database work per frame (RAW and FILE connected)\n\n" + table(
        ["system calls", "per frame"], [[name, f"{value:.2f}"] for name, value in figures.items()])


def put_into(path, text):
    with open(path) as file:
        document = file.read()
    head, rest = document.split(BEGIN)
    with open(path, "w") as file:
        file.write(head + BEGIN + "\n\n" + text + "\n" + END + rest.split(END)[1])
