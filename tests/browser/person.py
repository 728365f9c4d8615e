"""A person at a headless Chromium: opens admin pages with the admin's user and
password, reads what the page shows, fills fields by their labels, presses
buttons by their words, and saves screenshots. Nothing here reads the HTML
source for an answer a person could not see.
"""
import base64
import contextlib
import os
import shutil

PHONE = {"width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True}
DESKTOP = (1280, 900)


def find_browser():
    """(chromium, chromedriver), or a reason why the browser tests cannot run."""
    try:
        import selenium  # noqa: F401  (only asked whether it is there)
    except ImportError:
        return None, "python selenium module not found (package python3-selenium)"
    chromium = next((p for p in map(shutil.which, ("chromium", "chromium-browser", "google-chrome")) if p), None)
    if not chromium:
        return None, "chromium not found (package chromium)"
    driver = shutil.which("chromedriver") or ("/usr/bin/chromedriver" if os.path.exists("/usr/bin/chromedriver") else None)
    if not driver:
        return None, "chromedriver not found (package chromium-driver)"
    return (chromium, driver), None


def xpath_text(s):
    """An XPath literal for any text."""
    if "'" not in s:
        return "'%s'" % s
    return "concat('%s')" % "', \"'\", '".join(s.split("'"))


class Person:
    def __init__(self, chromium, chromedriver, base_url, user, password, shots):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service

        opts = webdriver.ChromeOptions()
        opts.binary_location = chromium
        for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                    "--no-first-run", "--disable-extensions", "--window-size=%d,%d" % DESKTOP):
            opts.add_argument(arg)
        self.driver = webdriver.Chrome(service=Service(executable_path=chromedriver), options=opts)
        self.driver.set_page_load_timeout(30)
        self.base = base_url.rstrip("/")
        self.shots = shots
        os.makedirs(shots, exist_ok=True)
        self.login(user, password)

    def close(self):
        self.driver.quit()

    # --- what a person does -------------------------------------------------

    def login(self, user, password):
        """What the browser's password dialog does: every request of the
        session carries the user and password."""
        token = base64.b64encode(("%s:%s" % (user, password)).encode()).decode()
        self.driver.execute_cdp_cmd("Network.enable", {})
        self.driver.execute_cdp_cmd("Network.setExtraHTTPHeaders", {"headers": {"Authorization": "Basic " + token}})

    def open(self, query=""):
        """The admin page of `query` (cmd=status ...), or the start page."""
        self.driver.get(self.base + "/cgi/korvanemgr.cgi" + ("?" + query if query else ""))

    def go(self, link_text):
        """Follows the link that reads `link_text`."""
        from selenium.webdriver.common.by import By
        self.driver.find_element(By.XPATH, "//a[normalize-space()=%s]" % xpath_text(link_text)).click()

    def text(self):
        """Everything the page shows, as text."""
        from selenium.webdriver.common.by import By
        return self.driver.find_element(By.TAG_NAME, "body").text

    def heading(self):
        from selenium.webdriver.common.by import By
        return self.driver.find_element(By.TAG_NAME, "h1").text

    def title(self):
        return self.driver.title

    def field(self, label):
        """The input that the label reading `label` names (by for= or by holding it)."""
        from selenium.webdriver.common.by import By
        lab = self.driver.find_element(By.XPATH, "//label[normalize-space()=%s or normalize-space(text())=%s]"
                                       % (xpath_text(label), xpath_text(label)))
        target = lab.get_attribute("for")
        if target:
            return self.driver.find_element(By.ID, target)
        return lab.find_element(By.XPATH, ".//input|.//select|.//textarea")

    def type(self, label, text):
        el = self.field(label)
        el.clear()
        el.send_keys(text)

    def button(self, words):
        """The button (or submit input) that reads `words`."""
        from selenium.webdriver.common.by import By
        lit = xpath_text(words)
        return self.driver.find_element(
            By.XPATH, "//button[normalize-space()=%s]|//input[(@type='submit' or @type='image') and (@value=%s or @alt=%s)]"
            % (lit, lit, lit))

    def press(self, words):
        """Presses the button and waits for the page it brings."""
        from selenium.webdriver.support.ui import WebDriverWait
        old = self.driver.find_element("tag name", "html")
        self.button(words).click()
        WebDriverWait(self.driver, 20).until(lambda d: self._stale(old))

    @staticmethod
    def _stale(el):
        from selenium.common.exceptions import StaleElementReferenceException
        try:
            el.tag_name
            return False
        except StaleElementReferenceException:
            return True

    def looks_styled(self):
        """Whether the stylesheet reached the page: its header is a flex bar."""
        from selenium.webdriver.common.by import By
        heads = self.driver.find_elements(By.CSS_SELECTOR, "header")
        return bool(heads) and heads[0].value_of_css_property("display") == "flex"

    def broken_images(self):
        """Images the page shows that did not load."""
        return self.driver.execute_script(
            "return Array.from(document.images).filter(i => !i.complete || i.naturalWidth === 0).map(i => i.src)")

    def nav_beside_content(self):
        """Whether the section links stand beside the page (a side bar) rather
        than above it."""
        nav, main = (self.driver.execute_script("return document.querySelector(arguments[0]).getBoundingClientRect()", sel)
                     for sel in ("nav", "main"))
        return nav["right"] <= main["left"] and nav["bottom"] > main["top"]

    # --- screen sizes and screenshots ---------------------------------------

    @contextlib.contextmanager
    def phone(self):
        """The page as a phone 390 px wide shows it."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", PHONE)
        self.driver.refresh()
        try:
            yield self
        finally:
            self.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})

    def shoot(self, name):
        """Saves the whole page, at the present width, as <shots>/<name>.png."""
        d = self.driver
        m = d.execute_cdp_cmd("Page.getLayoutMetrics", {})
        view = m.get("cssLayoutViewport") or m["layoutViewport"]
        size = m.get("cssContentSize") or m["contentSize"]
        shot = d.execute_cdp_cmd("Page.captureScreenshot", {
            "format": "png", "captureBeyondViewport": True,
            "clip": {"x": 0, "y": 0, "width": max(int(view["clientWidth"]), int(size["width"])),
                     "height": min(int(size["height"]), 6000), "scale": 1}})
        path = os.path.join(self.shots, name + ".png")
        with open(path, "wb") as f:
            f.write(base64.b64decode(shot["data"]))
        return path
