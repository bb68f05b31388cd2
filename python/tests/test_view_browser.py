"""The viewer's page driven in headless Chromium (Debian's chromium and
chromedriver, through Selenium; nothing is downloaded).  The screenshots
are kept in build-python/artefacts/ (ORBAPI_ARTEFACTS overrides it)."""
from __future__ import annotations

import os
import shutil
import time
from pathlib import Path

import pytest

import orbapi
from orbapi.view import load
from orbapi.view.server import ViewServer

webdriver = pytest.importorskip("selenium.webdriver", reason="the browser tests need selenium")
from selenium.webdriver.common.action_chains import ActionChains  # noqa: E402
from selenium.webdriver.common.actions.action_builder import ActionBuilder  # noqa: E402
from selenium.webdriver.common.actions.wheel_input import ScrollOrigin  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.common.keys import Keys  # noqa: E402

CHROMIUM = shutil.which("chromium") or "/usr/bin/chromium"
DRIVER = shutil.which("chromedriver") or "/usr/bin/chromedriver"
ROOT = Path(__file__).resolve().parents[2]
EXAMPLE = ROOT / "examples" / "example.orb"
ARTEFACTS = Path(os.environ.get("ORBAPI_ARTEFACTS", ROOT / "build-python" / "artefacts"))

pytestmark = pytest.mark.skipif(not (os.path.exists(CHROMIUM) and os.path.exists(DRIVER)),
                                reason="Chromium and chromedriver are not installed (./dev test installs them)")


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    from selenium.webdriver.chrome.service import Service

    opts = webdriver.ChromeOptions()
    opts.binary_location = CHROMIUM
    for arg in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--window-size=1500,1000", "--force-device-scale-factor=1",
                f"--user-data-dir={tmp_path_factory.mktemp('chromium-profile')}"):
        opts.add_argument(arg)
    driver = webdriver.Chrome(service=Service(DRIVER), options=opts)
    yield driver
    driver.quit()


@pytest.fixture
def page(browser):
    servers = []

    def open_page(source):
        server = ViewServer(load(source))
        server.start()
        servers.append(server)
        browser.get(server.url)
        settle(browser)
        return browser

    yield open_page
    for s in servers:
        s.stop()


def settle(driver, timeout=15.0):
    """Waits until the page has asked for and drawn all that it shows."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if driver.execute_script("return !!(window.orbView && window.orbView.idle())"):
            time.sleep(0.05)
            if driver.execute_script("return window.orbView.idle()"):
                return
        time.sleep(0.05)
    raise AssertionError("the page did not settle: " + driver.find_element(By.ID, "status").text)


def drawn(driver):
    return driver.execute_script("return JSON.parse(JSON.stringify(window.orbView.drawn))")


def view(driver):
    return driver.execute_script("return [window.orbView.state.lo, window.orbView.state.hi]")


def union(table):
    out = []
    for s, e in sorted(zip(table.start_time, table.end_time)):
        if out and s <= out[-1][1]:
            out[-1][1] = max(out[-1][1], e)
        else:
            out.append([float(s), float(e)])
    return out


def check_drawing(driver, rec, lo, hi):
    """The shades drawn are the events of the span, merged over both eyes;
    the circles are its fixations, numbered in order per eye, sized by
    duration and placed at their positions."""
    d = drawn(driver)
    for kind in ("fixations", "saccades", "blinks"):
        table = getattr(rec, kind)
        inside = table[(table.end_time >= lo) & (table.start_time <= hi)]
        got = [[s["start"], s["end"]] for s in d["spans"] if s["kind"] == kind]
        assert got == union(inside), kind
    fix = rec.fixations[(rec.fixations.end_time >= lo) & (rec.fixations.start_time <= hi)]
    circles = d["circles"]
    assert len(circles) == len(fix)
    for eye, name in ((0, "left"), (1, "right")):
        mine = [c for c in circles if c["eye"] == name]
        rows = fix[fix.eye == eye].sort_values("start_time")
        assert [c["number"] for c in mine] == list(range(1, len(rows) + 1))
        assert [c["start"] for c in mine] == [float(v) for v in rows.start_time]
        assert [c["duration"] for c in mine] == [float(v) for v in rows.duration]
        radii = [c["r"] for c in mine]
        assert sorted(radii) == [r for _, r in sorted(zip(rows.duration, radii))]
    return d


def test_example_recording_whole_and_one_fixation(page):
    rec = orbapi.read(str(EXAMPLE))
    driver = page(str(EXAMPLE))
    header = driver.find_element(By.ID, "facts").text
    assert "3,000 samples" in header and "8 fixations" in header and "2 trials" in header
    assert driver.find_element(By.ID, "damage-summary").text == "damage: none reported"
    assert len(driver.find_elements(By.CSS_SELECTOR, "#trials tbody tr")) == len(rec.trials)
    lo, hi = view(driver)
    check_drawing(driver, rec, lo, hi)
    ticks = drawn(driver)["ticks"]
    assert [t["text"] for t in ticks] == list(rec.messages.text)
    ARTEFACTS.mkdir(parents=True, exist_ok=True)
    driver.save_screenshot(str(ARTEFACTS / "viewer.png"))

    # Zoom in to the first fixation by typing its span.
    fix = rec.fixations.iloc[0]
    for field, value in (("span-start", fix.start_time), ("span-end", fix.end_time)):
        box = driver.find_element(By.ID, field)
        box.clear()
        box.send_keys(str(value))
    driver.find_element(By.CSS_SELECTOR, "#span-form button").click()
    settle(driver)
    lo, hi = view(driver)
    assert (lo, hi) == (float(fix.start_time), float(fix.end_time))
    d = check_drawing(driver, rec, lo, hi)
    assert [s["kind"] for s in d["spans"]] == ["fixations"]
    assert "samples shown as they are" in driver.find_element(By.ID, "mode").text
    assert driver.find_element(By.ID, "span-text").text.startswith(f"{fix.start_time:,.1f} – {fix.end_time:,.1f} ms")
    driver.save_screenshot(str(ARTEFACTS / "viewer-fixation.png"))

    # Hovering a circle of the scanpath tells its fixation.
    c = d["circles"][0]
    mouse = ActionBuilder(driver)
    mouse.pointer_action.move_to_location(int(c["client"][0]), int(c["client"][1]))
    mouse.perform()
    tip = driver.find_element(By.ID, "tip")
    assert tip.is_displayed() and tip.text.startswith("fixation 1\nfixation, ")


def test_trial_3_keys_mouse_and_hover(page, make_recording):
    path = make_recording(trials=5)
    rec = orbapi.read(path, variables="all")
    driver = page(path)
    rows = driver.find_elements(By.CSS_SELECTOR, "#trials tbody tr")
    assert [r.get_attribute("data-trial") for r in rows] == ["0", "1", "2", "3", "4"]
    assert "condition" in driver.find_element(By.CSS_SELECTOR, "#trials thead").text

    rows[3].click()
    settle(driver)
    trial = rec.trials.iloc[3]
    lo, hi = view(driver)
    assert (lo, hi) == (float(trial.start_time), float(trial.end_time))
    assert "current" in rows[3].get_attribute("class")
    check_drawing(driver, rec, lo, hi)
    ARTEFACTS.mkdir(parents=True, exist_ok=True)
    driver.save_screenshot(str(ARTEFACTS / "viewer-trial3.png"))

    body = driver.find_element(By.TAG_NAME, "body")
    body.send_keys("n")
    settle(driver)
    assert view(driver) == [float(rec.trials.start_time[4]), float(rec.trials.end_time[4])]
    body.send_keys(Keys.PAGE_UP)
    settle(driver)
    assert view(driver) == [lo, hi]

    # Keys zoom and pan; the wheel zooms where the mouse is.
    body.send_keys(Keys.ARROW_UP)
    settle(driver)
    a, b = view(driver)
    assert b - a == pytest.approx((hi - lo) / 2) and (a + b) / 2 == pytest.approx((lo + hi) / 2)
    body.send_keys(Keys.ARROW_RIGHT)
    settle(driver)
    assert view(driver)[0] == pytest.approx(a + (b - a) / 4)
    chart = driver.find_element(By.CSS_SELECTOR, "#chart-gaze_x .u-over")
    before = view(driver)
    ActionChains(driver).scroll_from_origin(ScrollOrigin.from_element(chart), 0, -100).perform()
    settle(driver)
    after = view(driver)
    assert after[1] - after[0] < before[1] - before[0]

    # Down to single samples: hovering tells the sample's values.
    driver.execute_script("orbView.setView(arguments[0], arguments[0] + 6)", float(trial.start_time) + 50)
    settle(driver)
    assert "samples shown as they are" in driver.find_element(By.ID, "mode").text
    ActionChains(driver).move_to_element(chart).perform()
    tip = driver.find_element(By.ID, "tip")
    assert tip.is_displayed() and tip.text.startswith("sample at ") and "gaze x left" in tip.text

    # The whole recording again, from the keyboard.
    body.send_keys(Keys.HOME)
    settle(driver)
    d = drawn(driver)
    assert view(driver)[1] - view(driver)[0] >= float(rec.samples.time.iloc[-1] - rec.samples.time.iloc[0])
    assert sum(s["n"] for s in d["spans"] if s["kind"] == "fixations") == len(rec.fixations)
