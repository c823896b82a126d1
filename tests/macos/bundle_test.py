"""The bundles as CMake lays them out, their property lists and entitlements, and the rules for the Objective-C++ sources.

Usage: bundle_test.py SOURCE BUILD [unittest arguments]; BUILD was built with MacLayout.cmake.
"""

import pathlib
import plistlib
import re
import struct
import sys
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1))
BUILD = pathlib.Path(sys.argv.pop(1))
APPLICATION = BUILD / "Kelvane.app"
EXTENSION = APPLICATION / "Contents/PlugIns/VornetVIExt.appex"
MAC_SOURCES = sorted([*(SOURCE / "src/platform/macos").glob("*.mm"), *(SOURCE / "macos").glob("*.mm")])


def property_list(path):
    with open(path, "rb") as file:
        return plistlib.load(file)


def constant(name):
    """The text of an application constant of the core."""
    text = (SOURCE / "src/base/AppConst.hpp").read_text()
    return re.search(rf'std::string {name} = "([^"]*)"', text).group(1)


def version():
    """The version and the build number that the build is told."""
    text = (SOURCE / "CMakeLists.txt").read_text()
    number = re.search(r"project\(VornetVI VERSION ([\d.]+)", text).group(1)
    return number, re.search(r"VORNET_BUILD_NUMBER (\d+)", text).group(1)


def files_below(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file()}


def png_size(path):
    head = path.read_bytes()[:24]
    assert head[:8] == b"\x89PNG\r\n\x1a\n", path
    return struct.unpack(">II", head[16:24])


class Layout(unittest.TestCase):
    def test_the_application_holds_the_extension_and_nothing_else(self):
        images = {f"{name}{scale}.png" for name in ("checkmark", "sync", "error", "QMT") for scale in ("", "@2x")}
        extension = {"Info.plist", "MacOS/VornetVIExt", "_CodeSignature/CodeResources"}
        extension |= {f"Resources/{image}" for image in images}
        application = {"Info.plist", "MacOS/Kelvane", "_CodeSignature/CodeResources"}
        inside = {f"PlugIns/VornetVIExt.appex/Contents/{file}" for file in extension}
        self.assertEqual(files_below(APPLICATION / "Contents"), application | inside)

    def test_images_come_at_their_size_and_at_twice_that(self):
        for name, points in (("checkmark", 256), ("sync", 256), ("error", 256), ("QMT", 16)):
            resources = EXTENSION / "Contents/Resources"
            self.assertEqual(png_size(resources / f"{name}.png"), (points, points))
            self.assertEqual(png_size(resources / f"{name}@2x.png"), (2 * points, 2 * points))

    def test_the_extension_starts_where_extensions_start_and_links_its_frameworks(self):
        link = (EXTENSION / "Contents/MacOS/VornetVIExt").read_text()
        self.assertIn("-fapplication-extension", link)
        self.assertRegex(link, r"-e\W+(-Xlinker )?_NSExtensionMain")
        for framework in ("Foundation", "AppKit", "FinderSync"):
            self.assertIn(f"-framework {framework}", link)
        self.assertRegex(link, r"libboost_json\.a")
        self.assertNotIn("_NSExtensionMain", (APPLICATION / "Contents/MacOS/Kelvane").read_text())

    def test_the_extension_is_signed_with_its_entitlements_and_before_the_application(self):
        extension = (EXTENSION / "Contents/_CodeSignature/CodeResources").read_text()
        application = (APPLICATION / "Contents/_CodeSignature/CodeResources").read_text()
        self.assertRegex(extension, r"^--force --sign - --entitlements \S+/VornetVIExt\.entitlements ")
        self.assertRegex(application, r"^--force --sign - \S+/Kelvane\.app\n")
        self.assertIn("./Contents/PlugIns/VornetVIExt.appex/Contents/_CodeSignature/CodeResources", application)


class PropertyLists(unittest.TestCase):
    def test_every_key_of_the_extension(self):
        self.assertEqual(
            property_list(EXTENSION / "Contents/Info.plist"),
            {
                "CFBundleDevelopmentRegion": "en",
                "CFBundleDisplayName": "Kelvane",
                "CFBundleExecutable": "VornetVIExt",
                "CFBundleIdentifier": constant("APP_CODENAME"),
                "CFBundleInfoDictionaryVersion": "6.0",
                "CFBundleName": "VornetVIExt",
                "CFBundlePackageType": "XPC!",
                "CFBundleShortVersionString": version()[0],
                "CFBundleSupportedPlatforms": ["MacOSX"],
                "CFBundleVersion": version()[1],
                "LSMinimumSystemVersion": "11.0",
                "LSUIElement": True,
                "NSAppTransportSecurity": {"NSAllowsLocalNetworking": True},
                "NSExtension": {
                    "NSExtensionAttributes": {},
                    "NSExtensionPointIdentifier": "com.apple.FinderSync",
                    "NSExtensionPrincipalClass": "FinderSync",
                },
                "NSPrincipalClass": "NSApplication",
            },
        )

    def test_every_key_of_the_application(self):
        self.assertEqual(
            property_list(APPLICATION / "Contents/Info.plist"),
            {
                "CFBundleDevelopmentRegion": "en",
                "CFBundleExecutable": "Kelvane",
                "CFBundleIdentifier": constant("APP_GROUP"),
                "CFBundleInfoDictionaryVersion": "6.0",
                "CFBundleName": "Kelvane",
                "CFBundlePackageType": "APPL",
                "CFBundleShortVersionString": version()[0],
                "CFBundleSupportedPlatforms": ["MacOSX"],
                "CFBundleVersion": version()[1],
                "LSMinimumSystemVersion": "11.0",
                "NSPrincipalClass": "NSApplication",
            },
        )

    def test_the_extension_belongs_to_the_application(self):
        extension = property_list(EXTENSION / "Contents/Info.plist")["CFBundleIdentifier"]
        application = property_list(APPLICATION / "Contents/Info.plist")["CFBundleIdentifier"]
        self.assertTrue(extension.startswith(application + "."))

    def test_the_programs_are_where_the_lists_say(self):
        for bundle in (APPLICATION, EXTENSION):
            program = property_list(bundle / "Contents/Info.plist")["CFBundleExecutable"]
            self.assertTrue((bundle / "Contents/MacOS" / program).is_file())

    def test_the_sources_define_the_principal_class_as_a_finder_sync(self):
        name = property_list(EXTENSION / "Contents/Info.plist")["NSExtension"]["NSExtensionPrincipalClass"]
        sources = "".join(path.read_text() for path in (SOURCE / "macos").iterdir() if path.suffix in (".h", ".mm"))
        self.assertIn(name, re.findall(r"^@interface (\w+) : FIFinderSync\b", sources, re.MULTILINE))
        self.assertIn(name, re.findall(r"^@implementation (\w+)$", sources, re.MULTILINE))

    def test_every_entitlement(self):
        self.assertEqual(
            property_list(BUILD / "macos/bundle/VornetVIExt.entitlements"),
            {
                "com.apple.security.app-sandbox": True,
                "com.apple.security.application-groups": [constant("APP_GROUP")],
                "com.apple.security.network.client": True,
                "com.apple.security.temporary-exception.files.home-relative-path.read-only": ["/"],
            },
        )


class Sources(unittest.TestCase):
    def test_each_was_checked_with_apples_object_model(self):
        checked = {path.name for path in BUILD.rglob("*.mm.o")}
        self.assertEqual(checked, {f"{path.name}.o" for path in MAC_SOURCES})

    def test_no_objective_cxx_source_catches_exceptions(self):
        for path in MAC_SOURCES:
            self.assertNotRegex(path.read_text(), r"@try\b|@catch\b|\bcatch\s*\(", path)

    def test_only_the_seam_asks_which_system_it_is_built_for(self):
        for path in [*(SOURCE / "src").rglob("*.[ch]pp"), *(SOURCE / "macos").glob("*.*")]:
            if SOURCE / "src/platform" not in path.parents:
                self.assertNotRegex(path.read_text(), r"(?m)^\s*#\s*(if|ifdef|ifndef|elif)\b(?! LIBCURL_VERSION_NUM\b)", path)

    def test_objects_are_autoreleased_through_the_one_macro(self):
        for path in MAC_SOURCES:
            self.assertNotRegex(path.read_text(), r"\bautorelease\]", path)


if __name__ == "__main__":
    unittest.main()
