"""Takes the pictures of the page. scripts/pictures calls it."""

import pathlib
import sys

from browser import Browser
from desk import APPLICATION, GATEWAY, POSCTL, Desk, until

DRIVE_S = 90  # as long as it takes until the curves and the track look like those of a drive


def main():
    folder = pathlib.Path(sys.argv[1])
    folder.mkdir(exist_ok=True)
    with Desk() as desk, Browser() as page:
        desk.start(APPLICATION)
        gateway = desk.start(GATEWAY, "--rate", 10, "--control")
        url = desk.start(POSCTL, "serve", "--listen", "127.0.0.1:0").stdout.readline().strip()

        def shoot(name):
            page.value("document.fonts.ready.then(() => new Promise(done => setTimeout(done, 1500)))")
            page.screenshot(path=str((folder / f"{name}.webp").resolve()))

        def picture(name, view="", **look):
            look = {"width": 1280, "height": 800, "scheme": "light", **look}
            page.open(url=f"{url}#{view}", **look)
            page.until(script="() => document.querySelectorAll('[data-light]').length > 10 && document.querySelectorAll('.satellite').length > 5")
            shoot(name)

        page.open(url=url)
        print(f"{DRIVE_S} s of a drive …", file=sys.stderr)
        page.value(f"new Promise(done => setTimeout(done, {1000 * DRIVE_S}))")
        picture("page", "span=60&color=speed")
        picture("page-dark", "span=60&color=speed", scheme="dark")
        picture("page-time", "span=60&only=time", height=640)
        control = desk.start(POSCTL, "serve", "--listen", "127.0.0.1:0", "--control").stdout.readline().strip()
        for fault in ("duplicate@0+600", "off@300+10"):  # which change no other picture
            desk.run(POSCTL, "fault", fault)
        page.open(url=f"{control}#only=control", width=1280, height=420)
        page.until(script="() => document.querySelectorAll('.planned li').length === 2")
        page.choose(selector="#fault-kind", value="jump")
        shoot("page-control")
        desk.run(POSCTL, "fault", "clear")
        picture("page-phone", "span=60", width=360, height=780, scheme="dark")
        gateway.kill()
        page.look(width=1280, height=800, scheme="light")
        until(lambda: "Error" in page.text('[data-light="inputs.gnss"]'), "the loss of the source")
        picture("page-failed", "span=60")
    sizes = {file.name: file.stat().st_size for file in sorted(folder.glob("*.webp"))}
    print("\n".join(f"{name:20} {size / 1024:5.0f} KiB" for name, size in sizes.items()))


if __name__ == "__main__":
    main()
