"""The bundles as CMake lays them out, their property lists and entitlements, their properties for the generators, and the
rules for the sources.

Usage: bundle_test.py SOURCE BUILD [unittest arguments]; BUILD was built with MacLayout.cmake, and BUILD-xcode configured.
"""

import pathlib
import plistlib
import re
import struct
import subprocess
import sys
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1))
BUILD = pathlib.Path(sys.argv.pop(1))
APPLICATION = BUILD / "Kelvane.app"
EXTENSION = APPLICATION / "Contents/PlugIns/VornetVIExt.appex"
MAC_SOURCES = sorted([*(SOURCE / "src/platform/macos").glob("*.mm"), *(SOURCE / "macos").glob("*.mm")])


def property_list(path):
    return plistlib.loads(path.read_bytes())


def constant(name):
    """The text of an application constant of the core."""
    text = (SOURCE / "src/base/AppConst.hpp").read_text()
    return re.search(rf'std::string {name} = "([^"]*)"', text).group(1)


def version():
    """The version and the build number of the build."""
    number = re.search(r"\(([\d.]+)", (SOURCE / "debian/changelog").read_text()).group(1)
    return number, re.search(r"VORNET_BUILD_NUMBER (\d+)", (SOURCE / "CMakeLists.txt").read_text()).group(1)


def bundle_properties(build):
    """What BundleProperties.cmake wrote down: target and property -> value."""
    lines = (build / "bundle-properties").read_text().splitlines()
    return {tuple(line.split(" ", 2)[:2]): line.split(" ", 2)[2] for line in lines}


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
        self.assertRegex(link, r"libvornet_boost_json\.a")
        self.assertNotIn("_NSExtensionMain", (APPLICATION / "Contents/MacOS/Kelvane").read_text())

    def test_the_extension_is_signed_with_its_entitlements_and_before_the_application(self):
        extension = (EXTENSION / "Contents/_CodeSignature/CodeResources").read_text()
        application = (APPLICATION / "Contents/_CodeSignature/CodeResources").read_text()
        self.assertRegex(extension, r"^--force --sign - --entitlements \S+/VornetVIExt\.entitlements ")
        self.assertRegex(application, r"^--force --sign - \S+/Kelvane\.app\n")
        self.assertIn("./Contents/PlugIns/VornetVIExt.appex/Contents/_CodeSignature/CodeResources", application)


class Generators(unittest.TestCase):
    XCODE = BUILD.with_name(BUILD.name + "-xcode")
    LINKAGE = {
        "COMPILE_OPTIONS": "-fapplication-extension",
        "LINK_OPTIONS": "-fapplication-extension;LINKER:-e,_NSExtensionMain",
        "BUNDLE_EXTENSION": "appex",
    }

    def test_the_extension_is_compiled_and_linked_as_one(self):
        for build in (BUILD, self.XCODE):
            properties = bundle_properties(build)
            for name, value in self.LINKAGE.items():
                self.assertEqual(properties["VornetVIExt", name], value)
        for compilation in re.split("(?m)^build ", (BUILD / "build.ninja").read_text()):
            if re.match(r"\S+vornet_platform\S+\.o:", compilation):
                self.assertIn("-fapplication-extension", compilation)

    def test_xcode_gets_what_it_builds_how_it_signs_it_and_where_it_belongs(self):
        properties = bundle_properties(self.XCODE)
        extension = {name: value for (target, name), value in properties.items() if target == "VornetVIExt"}
        application = {name: value for (target, name), value in properties.items() if target == "Kelvane"}
        self.assertEqual(
            extension,
            self.LINKAGE
            | {
                "XCODE_PRODUCT_TYPE": "com.apple.product-type.app-extension",
                "XCODE_EXPLICIT_FILE_TYPE": "wrapper.app-extension",
                "XCODE_ATTRIBUTE_APPLICATION_EXTENSION_API_ONLY": "YES",
                "XCODE_ATTRIBUTE_SKIP_INSTALL": "YES",
                "XCODE_ATTRIBUTE_PRODUCT_BUNDLE_IDENTIFIER": constant("APP_CODENAME"),
                "XCODE_ATTRIBUTE_CODE_SIGN_ENTITLEMENTS": f"{self.XCODE}/macos/bundle/VornetVIExt.entitlements",
                "XCODE_ATTRIBUTE_CODE_SIGN_IDENTITY": "-",
            },
        )
        self.assertEqual(
            application,
            {
                "MANUALLY_ADDED_DEPENDENCIES": "VornetVIExt",
                "XCODE_EMBED_APP_EXTENSIONS": "VornetVIExt",
                "XCODE_EMBED_APP_EXTENSIONS_CODE_SIGN_ON_COPY": "NO",
                "XCODE_ATTRIBUTE_PRODUCT_BUNDLE_IDENTIFIER": constant("APP_GROUP"),
                "XCODE_ATTRIBUTE_CODE_SIGN_IDENTITY": "-",
            },
        )

    def test_what_is_signed_is_signed_again_when_any_of_it_changes(self):
        query = subprocess.run(
            ["ninja", "-C", BUILD, "-t", "query", "macos/signed"], capture_output=True, text=True, check=True
        )
        inputs = {line.strip(" |").rsplit("/", 1)[-1] for line in query.stdout.split("outputs:")[0].splitlines()}
        wanted = {"VornetVIExt", "Kelvane", "VornetVIExt.entitlements", "VornetVIExt-Info.plist", "Kelvane-Info.plist"}
        wanted |= {path.name for path in (EXTENSION / "Contents/Resources").iterdir()}
        self.assertGreaterEqual(inputs, wanted)


class Group(unittest.TestCase):
    def configure(self, group):
        script = SOURCE / "cmake/VornetMacGroup.cmake"
        return subprocess.run(
            ["cmake", f"-DVORNET_MACOS_APPLICATION_GROUP={group}", "-P", script], capture_output=True, text=True
        )

    def test_an_invalid_name_is_refused(self):
        for name in ("", "Kelvane", "com..vornet", ".com.vornet", "com.vornet.", "com/vornet", "com.vornet sync", "å.b"):
            result = self.configure(name)
            self.assertNotEqual(result.returncode, 0, name)
            self.assertIn(f'VORNET_MACOS_APPLICATION_GROUP is "{name}"', result.stderr)

    def test_a_name_that_macos_asks_about_is_pointed_out(self):
        for name, pointed_out in (
            ("com.vornet.KelvaneSync", True),
            ("abcde12345.com.vornet.KelvaneSync", True),
            ("groups.com.vornet.KelvaneSync", True),
            ("group.com.vornet.KelvaneSync", False),
            ("ABCDE12345.com.vornet.KelvaneSync", False),
        ):
            result = self.configure(name)
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual("begins neither" in result.stdout, pointed_out, name)


class PropertyLists(unittest.TestCase):
    def assert_keys(self, bundle, others):
        """The list of `bundle` has what both have, and `others`."""
        common = {
            "CFBundleDevelopmentRegion": "en",
            "CFBundleExecutable": bundle.stem,
            "CFBundleInfoDictionaryVersion": "6.0",
            "CFBundleName": bundle.stem,
            "CFBundleShortVersionString": version()[0],
            "CFBundleSupportedPlatforms": ["MacOSX"],
            "CFBundleVersion": version()[1],
            "LSMinimumSystemVersion": "12.0",
            "NSPrincipalClass": "NSApplication",
        }
        self.assertEqual(property_list(bundle / "Contents/Info.plist"), common | others)

    def test_every_key_of_the_extension(self):
        self.assert_keys(
            EXTENSION,
            {
                "CFBundleDisplayName": "Kelvane",
                "CFBundleIdentifier": constant("APP_CODENAME"),
                "CFBundlePackageType": "XPC!",
                "LSUIElement": True,
                "NSAppTransportSecurity": {"NSAllowsLocalNetworking": True},
                "NSExtension": {
                    "NSExtensionAttributes": {},
                    "NSExtensionPointIdentifier": "com.apple.FinderSync",
                    "NSExtensionPrincipalClass": "FinderSync",
                },
                "VornetApplicationGroups": {constant("APP_GROUP"): constant("APP_GROUP")},
            },
        )

    def test_every_key_of_the_application(self):
        self.assert_keys(APPLICATION, {"CFBundleIdentifier": constant("APP_GROUP"), "CFBundlePackageType": "APPL"})

    def test_the_extension_belongs_to_the_application(self):
        self.assertTrue(constant("APP_CODENAME").startswith(constant("APP_GROUP") + "."))

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

    def test_no_source_uses_what_the_oldest_macos_lacks(self):
        for path in [*(SOURCE / "src").rglob("*.[ch]pp"), *MAC_SOURCES]:
            if "linux" not in path.parts and not path.name.endswith("_test.cpp"):
                self.assertNotRegex(path.read_text(), r"std::pmr\b|<memory_resource>", path)

    def test_objects_are_autoreleased_through_the_one_macro(self):
        for path in MAC_SOURCES:
            self.assertNotRegex(path.read_text(), r"\bautorelease\]", path)


if __name__ == "__main__":
    unittest.main()
