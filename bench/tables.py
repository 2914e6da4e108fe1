"""The figures of a run as Markdown."""

BEGIN, END = "<!-- figures: begin -->", "<!-- figures: end -->"


def table(head, rows):
    return "\n".join(["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
                     + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def render(results):
    parts = [f"Measured on {results['date']}: {results['machine']}; "
             + ", ".join(f"{name} {version}" for name, version in results["versions"].items()) + ".\n"]
    for key, renderer in (("comparison", comparison), ("fleet", fleet), ("idle", idle), ("start", start),
                          ("size", size), ("database", database)):
        if key in results:
            parts.append(renderer(results[key]))
    return "\n".join(parts)


def comparison(medians):
    def ratio(value, peer, figure):
        return f"{value / medians[peer][figure]:.2f}"

    rows = []
    for name, figures in medians.items():
        for figure, unit in (("p50", "µs"), ("p99", "µs"), ("rate", "frames/s")):
            if figure in figures:
                rows.append([name, figure if unit == "µs" else "highest rate", f"{figures[figure]:,.0f} {unit}",
                             ratio(figures[figure], "socat", figure), ratio(figures[figure], "ser2net", figure)])
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
