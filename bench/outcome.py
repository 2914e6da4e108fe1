"""What a soak has shown, as tables, and whether it is clean."""

import shutil
import subprocess

from memory import draw
from outputtables import table

LONGEST_WAIT = 75  # s that the outputs' waits may add up to: two writes of 30 s and a connection of 15 s
REPEATING = ("PUBSUB",)  # comes at least once, in any order: a number says which order it was
UNORDERED = ("GCP", *REPEATING)
GROWTH = 16 * 1024  # KiB of memory that messages held for the cloud and the heap's own ways may cost
UART_BUFFER = 64 * 1024 + 4096  # bytes that the kernel holds for a serial port before it loses any


class Outcome:
    def __init__(self, soak):
        self.soak, self.ledger, self.problems = soak, soak.ledger, soak.problems
        self.arguments = soak.arguments

    def report(self, idle, line):
        soak = self.soak
        print(f"\nseed {self.arguments.seed}, {self.arguments.seconds:.0f} s of faults, {soak.life} starts\n")
        print("| fault | thrown |\n|---|---|")
        for kind, count in sorted(soak.thrown.items()):
            print(f"| {kind} | {count} |")
        if not soak.has_mounts:
            print("| disk full, database read-only | 0: no mounts allowed here |")
        self.report_frames()
        if "PUBSUB" in soak.kinds:
            self.report_topic()
        if "STREAM" in soak.kinds:
            self.report_stream()
        if soak.watchers:
            self.report_console()
        self.report_resources(idle)
        self.report_line_rate(*line)
        if self.arguments.plot:
            self.plot()
        self.report_row(idle)
        for problem in self.problems:
            print(f"PROBLEM: {problem}")
        print("\nsoak:", "failed" if self.problems else "clean")
        if self.problems:
            print(f"the daemon's log is {soak.daemon.log}")
            return 1
        for name in ("db", "out") if soak.has_mounts else ():
            subprocess.run(["umount", "-l", f"{soak.folder}/{name}"], check=False)
        shutil.rmtree(soak.folder, ignore_errors=True)
        return 0

    def report_frames(self):
        print(f"\nFrames sent: {len(self.ledger.sent)}\n")
        print("| output | received | lost | explained | unexplained | doubled | out of order | largest gap |"
              " longest delay |\n|---|---|---|---|---|---|---|---|---|")
        causes = {output: self.judge(output) for output in self.soak.kinds}
        print("\n| lost at | because | frames |\n|---|---|---|")
        for output, of in causes.items():
            for cause, count in of.items():
                print(f"| {output} | {cause or 'UNEXPLAINED'} | {count} |")

    def judge(self, output):
        ledger = self.ledger
        causes, unexplained = ledger.judge(output)
        lost, doubled, disordered = sum(causes.values()), ledger.doubled[output], ledger.disordered[output]
        print(f"| {output} | {len(ledger.received[output])} | {lost} | {lost - len(unexplained)} |"
              f" {len(unexplained)} | {doubled} | {disordered} | {ledger.largest_gap[output]:.1f} s |"
              f" {ledger.largest_delay[output]:.1f} s |")
        if output == "FILE" and ledger.largest_delay[output] > LONGEST_WAIT:
            self.problems.append("a frame came to the file later than every wait of the outputs explains")
        if unexplained:
            some = [f"radio {r + 1} number {n} at {ledger.sent[r, n] - self.soak.began:.1f} s"
                    for r, n in unexplained[:10]]
            self.problems.append(f"{output}: nothing explains the loss of {len(unexplained)}: {', '.join(some)}")
        if (doubled and output not in REPEATING) or (disordered and output not in UNORDERED):
            self.problems.append(f"{output}: {doubled} doubled, {disordered} out of order")
        return causes

    def report_topic(self):
        messages = self.soak.topic.messages
        misplaced = messages.misplaced(self.ledger.received["FILE"])
        longest_stop = max(self.soak.stops[:-1], default=0)  # at the very last an output may be in a blocking wait
        answers = ", ".join(f"{code}: {count}" for code, count in sorted(self.soak.topic.answers.items()))
        print(f"\nPUBSUB: {messages.count} messages of {len(messages.outboxes())} outbox, {messages.doubled} of them"
              f" again; refusals {answers or 'none'}; longest stop {longest_stop:.1f} s")
        self.problems += [f"PUBSUB: {problem}" for problem in messages.problems[:10]]
        if longest_stop > 3 and not self.arguments.sanitized:
            self.problems.append("PUBSUB: SIGTERM takes more than two seconds")
        if misplaced:
            self.problems.append(f"PUBSUB: {len(misplaced)} numbered in another order than heard: {misplaced[:5]}")

    def report_stream(self):
        listener, rude = self.soak.listener, self.soak.rude
        print(f"\nSTREAM: joined {listener.joined} times, {listener.lost} records lost by the client that behaves,"
              f" {rude.lost} by clients that stopped reading")
        self.problems += [f"STREAM: {problem}" for problem in (listener.problems + rude.problems)[:10]]
        if listener.lost:
            self.problems.append("STREAM: the client that behaves was called too slow")

    def report_console(self):
        watchers = self.soak.watchers
        sizes = [size / 1024 for _, size in self.soak.console_samples]
        print(f"\nConsole: {len(watchers)} pages saw {sum(w.records for w in watchers)} records and missed"
              f" {sum(w.missed for w in watchers)}, {sum(w.states for w in watchers)} states,"
              f" {sum(w.refused for w in watchers)} of them refused; resident memory"
              f" {sizes[len(sizes) // 10]:.1f}, {sizes[len(sizes) // 2]:.1f}, {sizes[-1]:.1f} MiB")
        self.problems += [f"console: {problem}" for watcher in watchers for problem in watcher.problems[:3]]
        # The sanitizer keeps what was freed.
        if not self.arguments.sanitized and sizes[-1] > sizes[len(sizes) // 10] + GROWTH / 1024:
            self.problems.append("the console's memory grew")

    def plot(self):
        began, curve, marks = self.soak.began, [], []
        for (at, life, size, _), previous in zip(self.soak.samples, [None, *self.soak.samples]):
            if previous and previous[1] != life:
                curve.append((at - began, None))
                marks.append(at - began)
            curve.append((at - began, size))
        curves = {"quillon": curve}
        if self.soak.console_samples:
            curves["quillon-console"] = [(at - began, size) for at, size in self.soak.console_samples]
        draw(self.arguments.plot, f"Resident memory among faults, seed {self.arguments.seed}", curves, marks)

    def report_resources(self, idle):
        settled = [sample for sample in self.soak.samples if sample[1]]
        print("\n| | start | middle | end |\n|---|---|---|---|")
        picked = picked_from(settled)
        print("| resident memory, MiB | " + " | ".join(f"{s[2] / 1024:.1f}" for s in picked) + " |")
        print("| open files | " + " | ".join(str(s[3]) for s in picked) + " |")
        start, end = picked[0], picked[-1]
        files = min(sample[3] for sample in settled[30:90] or settled)  # the stream's clients come and go
        if end[3] > files + 8 or (end[2] > start[2] + GROWTH and not self.arguments.sanitized):
            self.problems.append("memory or open files grew")
        print(f"\nCPU: {self.soak.cpu:.1f} s in all; {idle:.2%} of a core while nothing was sent")

    def report_row(self, idle):
        """For the table of runs in docs/benchmarks.md."""
        verdicts = {output: self.ledger.judge(output) for output in self.soak.kinds}
        sizes = [sample[2] / 1024 for sample in self.soak.samples if sample[1]]
        cells = [str(self.arguments.seed) + (", sanitizers" if self.arguments.sanitized else ""),
                 f"{sum(self.soak.thrown.values())}", f"{len(self.ledger.sent):,}",
                 *(f"{sum(causes.values()):,}" for causes, _ in verdicts.values()),
                 str(sum(len(unexplained) for _, unexplained in verdicts.values())), f"{idle:.2%}",
                 ", ".join(f"{size:.1f}" for size in picked_from(sizes))]
        head = ["seed", "faults", "frames sent", *(f"lost at {output}" for output in verdicts), "unexplained",
                "a core, idle", "MiB at start, middle, end"]
        print("\n" + table(head, [cells]))

    def report_line_rate(self, sent, lost, delay):
        held = int(delay * 3840)
        print(f"\n38400 bit/s at line rate while both TCP targets drop packets: {sent} frames, {lost} lost at the file,"
              f" latest after {delay:.1f} s ({held} bytes waiting; a serial port's driver holds {UART_BUFFER})")
        if lost or held > UART_BUFFER:
            self.problems.append("a line at 38400 bit/s loses frames while TCP targets drop packets")


def picked_from(samples):
    """The start, when the radios have been identified; the middle; the end."""
    return [samples[min(30, len(samples) - 1)], samples[len(samples) // 2], samples[-1]]
