#!/usr/bin/env python3
"""Makes the Debian package, unpacks it and uses what is in it as a Debian user would.

Environment: VESTREL_BUILD the build folder.
"""
import os
import pathlib
import platform
import re
import shutil
import struct
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as xml

BUILD = pathlib.Path(os.environ["VESTREL_BUILD"])
ID = "org.vestrel.Vestrel"
PROGRAMS = ("vestrel", "vestrel-solve", "vestrel-batch", "vestrel-server", "vestrel-catalog")


def run(*command, **options):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True,
                          timeout=120, check=False, **options)


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory(prefix="vestrel-install-")
        cls.addClassCleanup(cls.folder.cleanup)
        work = pathlib.Path(cls.folder.name)
        made = run("cpack", "-G", "DEB", "-B", work / "package", cwd=BUILD)
        packages = list((work / "package").glob("*.deb"))
        if made.returncode != 0 or len(packages) != 1:
            raise AssertionError(made.stdout + made.stderr)
        cls.package = packages[0]
        cls.usr = work / "root/usr"
        subprocess.run(["dpkg-deb", "-x", cls.package, work / "root"], check=True)
        # Nothing of the build tree or of the user may be needed.
        cls.environment = {"PATH": f"{cls.usr / 'bin'}:/usr/bin:/bin", "HOME": str(work),
                           "VESTREL_CATALOG": str(work / "no catalog")}
        frame = ["--ra", "10", "--dec", "20", "--size", "60x45", "--width-px", "400",
                 "--random-stars", "60", "--out", work / "fr, ame.fit"]
        drawn = run("vestrel-catalog", "render", *frame, env=cls.environment)
        cls.frame = work / "fr, ame.fit"
        if drawn.returncode != 0:
            raise AssertionError(drawn.stderr)

    def unattended(self, program, **environment):
        result = self.frame.with_suffix(".kel")
        result.unlink(missing_ok=True)
        # As callers do that do not quote.
        words = f"0.1745,0.349,0.01745,0.0131,3,{self.frame}"
        words = words.split(" ") if program == "vestrel" else [words]
        end = run(program, *words, env={**self.environment, **environment})
        return end.returncode, result.read_bytes()

    def test_both_programs_leave_the_same_result_with_or_without_a_display(self):
        solver = self.unattended("vestrel-solve")
        self.assertEqual(solver[0], 7)
        self.assertRegex(solver[1], rb"^1000,1000,-1\r\n0,0,0,0,\d\d\r\nMaximum .* exceeded\r\n$")
        displays = [{}, {"DISPLAY": ":7777"}, {"QT_QPA_PLATFORM": "none such"},
                    {"QT_QPA_PLATFORM": "offscreen"}]
        if shutil.which("Xvfb"):
            # Starts afresh, and refuses programs meanwhile, whenever it has no client left.
            server = subprocess.Popen(["Xvfb", "-displayfd", "1", "-reset"], text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            self.addCleanup(server.stdout.close)
            self.addCleanup(server.wait)
            self.addCleanup(server.terminate)
            displays.append({"DISPLAY": ":" + server.stdout.readline().strip()})
        for environment in displays:
            with self.subTest(environment):
                self.assertEqual(self.unattended("vestrel", **environment), solver)

    def test_the_commands_for_hosts_lie_in_a_folder_of_their_own(self):
        folder = self.usr / "libexec/vestrel/compat"
        for name, said in (("astap", "usage: astap"), ("astap_cli", "usage: astap"),
                           ("solve-field", "usage: solve-field"), ("wcsinfo", "usage: wcsinfo")):
            end = run(folder / name, "-h", env=self.environment)
            self.assertIn(said, end.stdout + end.stderr)
            self.assertFalse((self.usr / "bin" / name).exists())
        # They find the decoders: this picture needs one, and has no stars.
        picture = self.frame.with_name("wide.fits")
        cards = ["SIMPLE  =                    T", "BITPIX  =                   32", "NAXIS   =                    2",
                 "NAXIS1  =                  300", "NAXIS2  =                  300", "END"]
        picture.write_bytes("".join(card.ljust(80) for card in cards).ljust(2880).encode() + bytes(362880))
        self.assertEqual(run(folder / "astap", "-f", picture, env=self.environment).returncode, 2)

    def test_without_a_display_there_is_a_word_about_it(self):
        for arguments in ([], [self.frame]):
            end = run("vestrel", *arguments, env=self.environment)
            self.assertEqual((end.returncode, end.stdout), (2, ""))
            self.assertIn("no display", end.stderr)
        end = run("vestrel", "1,2,3", env=self.environment)
        self.assertEqual((end.returncode, end.stderr),
                         (2, "Vestrel 1.13 Error: Invalid parameter string\n"))

    def test_the_desktop_finds_the_program_its_icon_and_its_files(self):
        entry = (self.usr / f"share/applications/{ID}.desktop").read_text()
        values = dict(line.split("=", 1) for line in entry.splitlines() if "=" in line)
        self.assertTrue((self.usr / "bin" / values["Exec"].split()[0]).exists())
        self.assertEqual(values["Icon"], ID)
        icons = self.usr / "share/icons/hicolor"
        for picture in icons.glob(f"*/apps/{ID}.png"):
            width, height = struct.unpack(">II", picture.read_bytes()[16:24])
            self.assertEqual(picture.parts[-3], f"{width}x{height}")
        self.assertEqual(xml.parse(icons / f"scalable/apps/{ID}.svg").getroot().get("width"), "128")
        types = xml.parse(self.usr / f"share/mime/packages/{ID}.xml").getroot()
        patterns = {glob.get("pattern") for glob in types.iter() if glob.tag.endswith("glob")}
        self.assertEqual(patterns, {"*.sbig", "*.sbi"})
        for kind in types:
            self.assertIn(kind.get("type"), values["MimeType"].split(";"))
        about = xml.parse(self.usr / f"share/metainfo/{ID}.metainfo.xml").getroot()
        version = run("vestrel", "--version", env=self.environment).stdout.split()[-1]
        self.assertEqual(about.find("releases/release").get("version"), version)
        self.assertEqual(about.findtext("launchable"), f"{ID}.desktop")
        judges = {"desktop-file-validate": [f"applications/{ID}.desktop"],
                  "appstreamcli": ["validate", "--no-net", f"metainfo/{ID}.metainfo.xml"]}
        for judge, arguments in judges.items():
            if shutil.which(judge):
                end = run(judge, *arguments, cwd=self.usr / "share")
                self.assertEqual(end.returncode, 0, end.stdout + end.stderr)

    def test_manual_and_completion_know_every_option_and_no_other(self):
        commands = [[program] for program in PROGRAMS]
        commands += [["vestrel-catalog", sub] for sub in 
                     ("build", "info", "quads", "render", "sources", "synthesize", "verify")]
        manuals = {program: set() for program in PROGRAMS}
        for command in commands:
            text = run(*command, "--help", env=self.environment).stdout
            named = re.findall(r"^ +((?:-h,)?--[a-z0-9,-]+)", text, re.MULTILINE)
            options = {name for names in named for name in names.split(",") if name != "-h"}
            if command == ["vestrel"]:
                options = {"--help", "--version"}
            manuals[command[0]] |= options
            completion = self.usr / "share/bash-completion/completions" / command[0]
            ask = (f". {completion}; COMP_WORDS=({' '.join(command)} --); "
                   f"COMP_CWORD={len(command)}; $(complete -p {command[0]} | sed 's/.*-F "
                   r"\([^ ]*\).*/\1/'); printf '%s\n' ${COMPREPLY[@]}")
            offered = run("bash", "-c", ask)
            self.assertEqual(set(offered.stdout.split()), options, offered.stderr)
        for program, options in manuals.items():
            page = (self.usr / f"share/man/man1/{program}.1").read_text().replace("\\-", "-")
            self.assertEqual(set(re.findall(r"--[a-z][a-z0-9-]+", page)), options)

    def test_every_program_has_a_manual_page_that_can_be_set(self):
        pages = self.usr / "share/man/man1"
        self.assertEqual({page.stem for page in pages.iterdir()}, {path.name for path in (self.usr / "bin").iterdir()})
        for page in pages.iterdir():
            if shutil.which("man"):
                end = run("man", "--warnings", "-l", "-Tutf8", page)
                self.assertEqual((end.returncode, end.stderr), (0, ""))

    def test_the_links_of_the_documents_lead_somewhere(self):
        pages = list((self.usr / "share/doc/vestrel").rglob("*.md"))
        self.assertIn("FORMATS.md", [page.name for page in pages])
        for page in pages:
            for link in re.findall(r"\]\(([^)#\s]+)", page.read_text()):
                if "://" not in link:
                    self.assertTrue((page.parent / link).exists(), f"{page.name}: {link}")
        self.assertTrue((self.usr / "share/doc/vestrel/docs/examples/embed/CMakeLists.txt").exists())

    def test_completion_offers_images_only(self):
        images = ["a b.FIT", "c.sbig", "d.png", "e.tif", "f.xisf", "g.jpeg", "h.fits.fz", "i.cr2", "j.fits.gz"]
        for name in (*images, "b.txt", "b.tar.gz"):
            (self.usr / name).write_text("")
        ask = (". share/bash-completion/completions/vestrel; COMP_WORDS=(vestrel ''); COMP_CWORD=1;"
               " _vestrel; printf '%s\\n' \"${COMPREPLY[@]}\"")
        offered = run("bash", "-c", ask, cwd=self.usr).stdout.splitlines()
        self.assertEqual(sorted(offered), sorted([*images, "bin", "include", "lib", "libexec", "share"]))

    def test_another_project_builds_with_the_library(self):
        example = pathlib.Path(__file__).parents[1] / "docs/examples/embed"
        build = self.usr.parent / "embed"
        for step in (["-S", example, "-B", build, f"-DCMAKE_PREFIX_PATH={self.usr}"], ["--build", build]):
            made = run("cmake", *step)
            self.assertEqual(made.returncode, 0, made.stdout + made.stderr)
        end = run(build / "embed", self.frame, env=self.environment)
        self.assertEqual(end.returncode, 1)
        self.assertRegex(end.stderr, "fr, ame.fit: the catalog folder .*/no catalog does not exist")

    @unittest.skipUnless((BUILD / "python").exists(), "built without pybind11")
    def test_python_finds_the_module(self):
        code = "import vestrel; print(vestrel.__version__, vestrel.solve('none.png').reason)"
        modules = self.usr / "lib/python3/dist-packages"
        end = run("/usr/bin/python3", "-c", code, env={**self.environment, "PYTHONPATH": str(modules)})
        version = run("vestrel", "--version", env=self.environment).stdout.split()[-1]
        self.assertEqual((end.stdout.split()[:1], end.stderr), ([version], ""))

    def test_programs_are_hardened(self):
        for program in PROGRAMS:
            binary = self.usr / "bin" / program
            header = run("readelf", "-hldW", binary).stdout
            self.assertRegex(header, r"Type: +DYN .*[Pp]osition-Independent Executable")
            self.assertIn("GNU_RELRO", header)
            self.assertRegex(header, r"FLAGS_1.* NOW")
            self.assertRegex(header, r"GNU_STACK .* RW  ")  # and no E, which would run it
            called = run("nm", "-D", binary).stdout
            for check in ("__stack_chk_fail", "__fprintf_chk", "__snprintf_chk"):
                self.assertIn(check, called, program)
            if platform.machine() == "x86_64":
                functions = run("objdump", "-d", "-j", ".text", binary).stdout
                self.assertGreater(functions.count("endbr64"), 500)

    def test_the_package_depends_on_what_its_programs_link(self):
        control = run("dpkg-deb", "-f", self.package, "Depends").stdout
        # The decoders' libraries too: no program links them.
        for library in ("libqt6widgets6", "libcfitsio", "libjpeg62-turbo", "libstdc++6", "libtiff", "libpng",
                        "libraw", "libpugixml", "liblz4", "libzstd"):
            self.assertIn(library, control)
        for program in PROGRAMS:
            linked = run("ldd", self.usr / "bin" / program).stdout
            self.assertNotIn("not found", linked)
            self.assertNotIn(str(BUILD), linked)


if __name__ == "__main__":
    unittest.main()
