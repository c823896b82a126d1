"""script/macos-install, with stand-ins of the commands of macOS that it calls.

Usage: install_test.py SOURCE BUILD [unittest arguments]; BUILD was built with MacLayout.cmake.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1))
BUILD = pathlib.Path(sys.argv.pop(1))
IDENTIFIER = "com.vornet.KelvaneSync.FinderBadgeExtension"
PLUGIN = "Contents/PlugIns/VornetVIExt.appex"


class Install(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vornet-test-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.build = self.folder / "my build"
        self.build.mkdir()
        shutil.copytree(BUILD / "Kelvane.app", self.build / "Kelvane.app")
        shutil.copytree(BUILD / "macos/bundle", self.build / "macos/bundle")
        self.installed = self.folder / "Applications/Kelvane.app"
        self.plugins = self.folder / "plugins"  # what pluginkit lists
        self.plugins.touch()
        self.running = self.folder / "running"  # there while the extension is

    def install(self, *arguments):
        environment = dict(os.environ, HOME=str(self.folder), VORNET_CALLS=str(self.folder / "calls"))
        environment.update(VORNET_PLUGINS=str(self.plugins), VORNET_RUNNING=str(self.running))
        environment["PATH"] = f"{SOURCE / 'tests/macos/commands'}:{environment['PATH']}"
        return subprocess.run(
            [SOURCE / "script/macos-install", *arguments], env=environment, capture_output=True, text=True, timeout=60
        )

    def assert_refused(self, reason, *arguments):
        result = self.install(*arguments)
        self.assertEqual(result.returncode, 1)
        self.assertIn(reason, result.stderr)

    def calls(self):
        calls = self.folder / "calls"
        return calls.read_text().splitlines() if calls.exists() else []

    def test_signs_copies_registers_enables_and_restarts_in_this_order(self):
        result = self.install("--identity", "Me", str(self.build))
        self.assertEqual(result.returncode, 0, result.stderr)
        application = self.build / "Kelvane.app"
        entitlements = self.build / "macos/bundle/VornetVIExt.entitlements"
        self.assertEqual(
            self.calls(),
            [
                f"codesign --force --sign Me --entitlements {entitlements} {application / PLUGIN}",
                f"codesign --force --sign Me {application}",
                f"codesign --verify --deep --strict {application}",
                f"pluginkit -m -A -D -v -i {IDENTIFIER}",
                "killall VornetVIExt",
                "pgrep -x VornetVIExt",
                f"ditto {application} {self.installed}",
                f"pluginkit -a {self.installed / PLUGIN}",
                f"pluginkit -e use -i {IDENTIFIER}",
                "killall Finder",
            ],
        )
        self.assertTrue((self.installed / PLUGIN / "Contents/Info.plist").is_file())

    def test_replaces_an_earlier_installation_wherever_it_is_and_may_be_repeated(self):
        (self.installed / PLUGIN).mkdir(parents=True)
        (self.installed / "old").touch()
        registered = [self.installed / PLUGIN, self.folder / "another place/Kelvane.app" / PLUGIN]
        self.plugins.write_text(
            "".join(f"+    {IDENTIFIER}(1.0.0)\tE1C5\t2026-11-22 08:00:00 +0000\t{path}\n" for path in registered)
            + " (2 plug-ins)\n"
        )
        self.running.touch()
        self.assertEqual(self.install(str(self.build)).returncode, 0)
        self.assertFalse((self.installed / "old").exists())
        self.assertTrue((self.installed / "Contents/Info.plist").is_file())
        calls = self.calls()
        steps = [*(f"pluginkit -r {path}" for path in registered), "killall VornetVIExt", "pgrep -x VornetVIExt"]
        first = calls.index(steps[0])
        self.assertEqual(calls[first : first + 4], steps)
        self.assertTrue(calls[first + 4].startswith("ditto "))
        self.assertEqual(self.install(str(self.build)).returncode, 0)

    def test_waits_for_the_extension_to_end(self):
        self.running.mkdir()  # what the stand-in cannot remove
        self.assert_refused("VornetVIExt is still running", str(self.build))
        self.assertGreater(self.calls().count("pgrep -x VornetVIExt"), 1)
        self.assertFalse(self.installed.exists())

    def test_leaves_another_application_of_the_name_alone(self):
        self.installed.mkdir(parents=True)
        (self.installed / "theirs").touch()
        self.assert_refused("another application", str(self.build))
        self.assertTrue((self.installed / "theirs").exists())
        self.assertEqual(self.calls(), [])

    def test_says_what_is_missing(self):
        self.assert_refused("no Kelvane.app", str(self.folder / "nothing"))
        self.assertEqual(self.install("--identity").returncode, 1)
        self.assertEqual(self.install("--unknown").returncode, 2)
        self.assertEqual(self.calls(), [])


if __name__ == "__main__":
    unittest.main()
