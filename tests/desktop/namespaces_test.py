"""Tries what namespaces.py promises of files laid over /usr, in its own namespaces."""

import pathlib
import tempfile
import unittest

import namespaces


class InstalledFiles(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.build, self.layer = pathlib.Path(folder.name, "build"), pathlib.Path(folder.name, "layer")
        for path in (self.build / "share", self.layer):
            path.mkdir(parents=True)
        (self.build / "share/vornet-namespaces-test").write_text("laid over")

    def install(self, **options):
        namespaces.install(self.build, ["share/vornet-namespaces-test"], self.layer, **options)

    def testAreSeenInUsr(self):
        self.install()
        self.assertEqual(pathlib.Path("/usr/share/vornet-namespaces-test").read_text(), "laid over")

    def testLeaveACheckoutInUsrWritable(self):
        checkout = pathlib.Path("/usr/src")  # as one: a folder that can be written
        namespaces.empty(checkout)
        (checkout / "before").write_text("before")
        self.install(checkout=checkout)
        self.assertEqual((checkout / "before").read_text(), "before")
        (checkout / "after").write_text("after")


if __name__ == "__main__":
    namespaces.enter()
    unittest.main()
