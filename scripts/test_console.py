#!/usr/bin/python3
"""Tries the console's page in Chromium; started by scripts/test-console."""

import argparse
import base64
import http.client
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from demo import Programs

PASSWORD = "nine lives"
RADIOS = {"Van 1": (19200, "28940001"), "Base": (4800, "37980002")}
CHROMIUM = ("--headless=new --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
            "--disable-component-update --disable-sync --disable-dev-shm-usage").split()


def wait(what, condition, seconds=30):
    """Waits for a condition and tells how long it took; a page that changes meanwhile is looked at again."""
    begin = time.monotonic()
    while time.monotonic() - begin < seconds:
        try:
            if condition():
                print(f"  {time.monotonic() - begin:5.1f} s  {what}", flush=True)
                return time.monotonic() - begin
        except (WebDriverException, StopIteration):
            pass
        time.sleep(0.05)
    raise AssertionError(f"not within {seconds} s: {what}")


class Radio:
    """A simulated radio that takes commands, and what its display shows."""

    def __init__(self, name, programs, tools):
        self.shown = []
        baud, esn = RADIOS[name]
        self.link = programs.folder / name.replace(" ", "-")
        self.process = programs.start([tools / "quillon-radiosim", "--link", self.link, "--baud", baud, "--esn", esn,
                                       "--control"], self.tell, stdin=subprocess.PIPE)

    def tell(self, line):
        text = line.split(": ", 1)[-1]
        if text.startswith("display ["):
            self.shown.append(text.removeprefix("display [").removesuffix("]"))

    def order(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()


class Gateway:
    """Daemon, two radios and console, each of which can be started again."""

    def __init__(self, folder, programs, tools):
        self.programs, self.tools = programs, tools
        self.database = folder / "van.sqlite"
        self.stream = folder / "stream"
        with socket.create_server(("127.0.0.1", 0)) as probe:
            self.port = probe.getsockname()[1]
        self.url = f"http://127.0.0.1:{self.port}/"
        self.daemon = self.start_daemon()
        while self.control("pending", "list").returncode != 0:
            time.sleep(0.1)
        self.radios = {name: Radio(name, programs, tools) for name in RADIOS}
        for name, radio in self.radios.items():
            while not radio.link.exists():
                time.sleep(0.05)
            self.control("radio", "add", str(radio.link), "--name", name, check=True)
        self.control("forwarder", "remove", "1", check=True)  # the cloud output of a new file
        self.console = self.start_console()

    def start_daemon(self):
        return self.programs.start([self.tools / "quillon", "--configfile", self.database])

    def start_console(self):
        return self.programs.start([self.tools / "quillon-console", "--configfile", self.database,
                                    "--listen", f"127.0.0.1:{self.port}"])

    def control(self, *arguments, **options):
        return subprocess.run([self.tools / "quillonctl", "-c", self.database, *arguments], capture_output=True,
                              text=True, check=options.pop("check", False), **options)

    def add_stream_and_password(self):
        self.control("forwarder", "add", "stream", str(self.stream), check=True)
        self.control("console", "password", input=PASSWORD + "\n", check=True)
        self.restart_daemon()

    def restart_daemon(self):
        self.daemon.terminate()
        self.daemon.wait()
        self.daemon = self.start_daemon()


class Page:
    """A browser with the page, in one language."""

    def __init__(self, url, language, folder):
        options = webdriver.ChromeOptions()
        for flag in [*CHROMIUM, f"--user-data-dir={folder / ('browser-' + language)}", f"--lang={language}"]:
            options.add_argument(flag)
        options.add_experimental_option("prefs", {"intl.accept_languages": language})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.url = url
        self.look(1280, 900)
        self.browser.get(url)

    def look(self, width, height, dark=False):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.find(selector).text

    def script(self, code, *arguments):
        return self.browser.execute_script(code, *arguments)

    def log_in(self):
        wait("the page asks for the password", lambda: self.find("#password").is_displayed())
        self.find("#password").send_keys(PASSWORD + Keys.ENTER)
        wait("the page lets in who knows it", lambda: self.find("#say").is_displayed())

    def card(self, name):
        return next(card for card in self.browser.find_elements(By.CSS_SELECTOR, ".card")
                    if card.find_element(By.TAG_NAME, "h3").text == name)

    def records(self):
        return self.script("return [...document.querySelectorAll('#records li')].map(row => row.textContent)")

    def violations(self, axe):
        self.script(axe)
        found = self.browser.execute_async_script(
            "const done = arguments[arguments.length - 1];"
            "axe.run().then(result => done(result.violations.map(v => v.id + ': ' + v.nodes.map(n => n.html).join(' '))))")
        return found

    def picture(self, path):
        data = self.browser.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})["data"]
        path.write_bytes(base64.b64decode(data))

    def problems(self):
        """What the browser itself reports, but for requests that the console refused or was not there for."""
        return [entry["message"] for entry in self.browser.get_log("browser")
                if entry["level"] == "SEVERE" and "Failed to load resource" not in entry["message"]
                and "ERR_" not in entry["message"]]


def try_without_stream(gateway, page):
    wait("without a STREAM output the page says so", lambda: "STREAM" in page.text("#verdict"))
    assert not page.find("#say").is_displayed(), "nobody may act before there is a password"
    gateway.add_stream_and_password()
    page.browser.get(page.url)
    page.log_in()
    for name, (_, esn) in RADIOS.items():
        wait(f"{name} is identified", lambda: page.card(name).get_attribute("data-level") == "good", 60)
        assert esn in page.card(name).text


def try_live(gateway, page):
    van, base = gateway.radios["Van 1"], gateway.radios["Base"]
    wait("both are greeted", lambda: van.shown[-1:] == [""] and base.shown[-1:] == [""], 60)
    van.order('hear *NTF,DPMR,RXMSG,IND,0047312,1200005,N000005,30,TXT,"On the way"')
    took = wait("a frame appears", lambda: any("On the way" in row for row in page.records()))
    assert took < 1, "it has to appear within a second"
    van.order("hear *NTF,<script>document.title='broken'</script>")
    wait("markup stays text", lambda: any("<script>document.title" in row for row in page.records()))
    assert page.browser.title == "Quillon"
    wait("the card shows what was heard last", lambda: "<script>" in page.card("Van 1").text)

    page.find("#pause").click()
    van.order("hear *NTF,5T,RXCODE,1111,N000001,2")
    wait("paused, it counts", lambda: "1" in page.text("#live-note"))
    assert not any("1111" in row for row in page.records())
    page.find("#pause").click()
    wait("it goes on", lambda: "1111" in page.records()[0])
    base.order("hear *NTF,5T,RXCODE,2222,N000002,2")
    wait("the newest is on top", lambda: "2222" in page.records()[0])
    page.script("const s = document.getElementById('filter-radio'); s.selectedIndex = 1; s.dispatchEvent(new Event('change'))")
    wait("a filter by radio", lambda: page.records() and all("Base" not in row for row in page.records()))
    page.script("const s = document.getElementById('filter-radio'); s.value = ''; s.dispatchEvent(new Event('change'))")
    page.find("#filter-text").send_keys("2222")
    wait("a search", lambda: len(page.records()) == 1 and "2222" in page.records()[0])
    page.find("#filter-text").clear()
    page.find("#filter-text").send_keys(" ")
    page.find("#log-out").click()
    page.log_in()
    wait("logged in again, the list is there", lambda: any("1111" in row for row in page.records()))


def try_actions(gateway, page):
    text = page.find("#say-text")
    text.send_keys("Hello from the page")
    wait("the preview scrolls", lambda: "FROM" in page.text("#display"))
    text.clear()
    text.send_keys("Meeting at 6", Keys.ENTER)
    wait("it says what came of it", lambda: "MEETING AT 6" in page.text("#say .outcome"))
    for name, radio in gateway.radios.items():
        wait(f"the text reaches {name}", lambda: "MEETING AT 6" in radio.shown)
    page.card("Base").find_elements(By.TAG_NAME, "button")[0].send_keys(Keys.ENTER)  # by keyboard
    field = page.find("#dialog-input")
    field.clear()
    field.send_keys("Basis", Keys.ENTER)
    wait("the daemon is told to restart", lambda: "restart" in page.card("Basis").text.lower())
    gateway.daemon.wait(20)
    wait("a daemon that is gone is missed", lambda: page.find("#top").get_attribute("data-level") == "error")
    gateway.daemon = gateway.start_daemon()
    wait("it is back", lambda: page.card("Basis").get_attribute("data-level") == "good", 60)


def try_faults(gateway, page):
    gateway.radios["Base"].order("unplug")
    wait("a radio unplugged turns its card", lambda: page.card("Basis").get_attribute("data-level") == "error")
    gateway.radios["Base"].order("plug")
    wait("plugged in again it turns back", lambda: page.card("Basis").get_attribute("data-level") == "good", 60)
    gateway.console.kill()
    wait("the console killed: the page says so", lambda: page.find("#lost").is_displayed())
    gateway.console = gateway.start_console()
    page.log_in()  # sessions live in memory
    assert not page.find("#lost").is_displayed()
    gateway.console.send_signal(signal.SIGSTOP)
    wait("the console silent, its connections open: the page says so", lambda: page.find("#lost").is_displayed(), 60)
    gateway.console.send_signal(signal.SIGCONT)
    wait("it speaks again: the page is back", lambda: not page.find("#lost").is_displayed())


def try_full(gateway, page):
    session = page.browser.get_cookie("quillon_session")["value"]
    page.browser.get("about:blank")
    places = []
    while len(places) < 32:
        connection = http.client.HTTPConnection("127.0.0.1", gateway.port)
        connection.request("GET", "/api/events", headers={"Cookie": f"quillon_session={session}"})
        answer = connection.getresponse()
        if answer.status == 200:
            places.append(answer)
    page.browser.get(page.url)
    wait("one page too many says so", lambda: "32 pages" in page.text("#lost"))
    places.pop().close()
    wait("it joins once there is a place", lambda: not page.find("#lost").is_displayed())
    for place in places:
        place.close()


def try_looks(gateway, page, axe, images):
    for name, radio in gateway.radios.items():
        wait(f"{name} is greeted", lambda: radio.shown[-1:] == [""], 60)
        time.sleep(1)
    for _ in range(4):
        gateway.radios["Van 1"].order('hear *NTF,DPMR,RXMSG,IND,0047312,1200005,N000005,30,TXT,"On the way"')
        gateway.radios["Base"].order("hear *NTF,5T,RXCODE,3175,N000008,2")
    wait("all is well", lambda: page.find("#top").get_attribute("data-level") == "good", 60)
    for width, height, name in ((320, 800, None), (360, 1500, "phone"), (1280, 860, "desktop")):
        for dark in (False, True):
            page.look(width, height, dark)
            time.sleep(0.5)
            size = page.script("return [document.documentElement.scrollWidth, window.innerWidth]")
            assert size[0] <= size[1], f"{width} pixels wide it scrolls sideways: {size}"
            back = page.script("return getComputedStyle(document.body).backgroundColor")
            assert (sum(int(part) for part in back[4:-1].split(",")) < 200) == dark, back
            found = page.violations(axe)
            assert not found, found
            if name:
                page.picture(images / f"console-{name}{'-dark' if dark else ''}.png")
    print("  axe-core: no violation at 320, 360 and 1280 pixels, light and dark", flush=True)
    page.look(1280, 860)


def measure(page):
    page.browser.get(page.url)
    time.sleep(1)
    paint = page.script("return performance.getEntriesByName('first-contentful-paint')[0].startTime")
    size = page.script("return performance.getEntriesByType('resource').filter(e => !e.name.includes('/api/'))"
                       ".reduce((sum, e) => sum + e.decodedBodySize, performance.getEntriesByType('navigation')[0].decodedBodySize)")
    print(f"  first paint after {paint:.0f} ms; the page has {size / 1024:.0f} KiB", flush=True)
    assert paint < 1000 and size < 300 * 1024


def try_french(gateway, folder):
    page = Page(gateway.url, "fr", folder)
    try:
        wait("French", lambda: page.script("return document.documentElement.lang") == "fr")
        page.log_in()
        wait("French words", lambda: page.text("#verdict").startswith("Tout va bien"), 60)
        wait("French kinds", lambda: any("appel 5 tons" in row for row in page.records()))
        assert not page.problems(), page.problems()
    finally:
        page.browser.quit()


def run(arguments, folder, programs):
    gateway = Gateway(folder, programs, arguments.bin.resolve())
    page = Page(gateway.url, "en", folder)
    try:
        try_without_stream(gateway, page)
        try_live(gateway, page)
        try_actions(gateway, page)
        try_faults(gateway, page)
        try_full(gateway, page)
        try_looks(gateway, page, arguments.axe.read_text(), arguments.images)
        measure(page)
        assert not page.problems(), page.problems()
        try_french(gateway, folder)
    except BaseException:
        page.picture(arguments.images / "failed.png")
        raise
    finally:
        page.browser.quit()
    if arguments.update_images:
        for name in ("console-phone.png", "console-desktop.png"):
            shutil.copy(arguments.images / name, "docs/")


def main():
    parser = argparse.ArgumentParser(description="The console's page in a real browser.")
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="folder of the built programs")
    parser.add_argument("--axe", type=pathlib.Path, required=True, help="axe.min.js of axe-core")
    parser.add_argument("--images", type=pathlib.Path, required=True, help="folder for screenshots")
    parser.add_argument("--update-images", action="store_true", help="also replace the screenshots in docs/")
    arguments = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    arguments.images.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="quillon-console-", ignore_cleanup_errors=True) as name:
        folder = pathlib.Path(name)
        programs = Programs(folder)
        try:
            run(arguments, folder, programs)
        finally:
            programs.end()
    print("test-console: passed")


if __name__ == "__main__":
    main()
