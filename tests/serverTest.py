#!/usr/bin/env python3
"""Runs the real vestrel-server: clients as they are, hostile ones, and a browser.

Environment: VESTREL_SERVER the program; VESTREL_CATALOG_TOOL the one that draws frames;
VESTREL_TEST_CATALOG a real catalog (else the usual folder).
"""
import concurrent.futures
import fcntl
import hashlib
import http.client
import io
import json
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.parse
import warnings

import numpy
from astropy.io import fits
from astropy.wcs import WCS, FITSFixedWarning

warnings.simplefilter("ignore", FITSFixedWarning)
CATALOG = pathlib.Path(os.environ.get("VESTREL_TEST_CATALOG") or os.path.join(
    os.environ.get("XDG_DATA_HOME", os.path.expanduser("~/.local/share")), "Harrowdene/KEL"))
RA, DEC, SCALE, WIDTH, HEIGHT = 56.7, 24.1, 9.0, 600, 400


def skip_or_fail(test, reason):
    if os.environ.get("CI"):
        test.fail(reason)
    test.skipTest(reason)


class Server(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="vestrel-servertest-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.frame = cls.folder / "frame <b>&\"ü.fit"
        subprocess.run([os.environ["VESTREL_CATALOG_TOOL"], "render", "--catalog", CATALOG, "--ra", str(RA), "--dec",
                        str(DEC), "--size", f"{WIDTH * SCALE / 60}x{HEIGHT * SCALE / 60}", "--width-px", str(WIDTH),
                        "--out", cls.frame], check=True, stdout=subprocess.DEVNULL)

    def setUp(self):
        if not (CATALOG / "quads.tables").exists():
            skip_or_fail(self, f"no quad tables in {CATALOG}; vestrel-catalog quads makes them")

    def start(self, *options, spool=None, before=None, wrapper=()):
        spool = spool or self.folder / "spool"
        spool.mkdir(exist_ok=True)
        environment = dict(os.environ, VESTREL_CATALOG=str(CATALOG), TMPDIR=str(spool),
                           VESTREL_SETTINGS=str(self.folder / "Vestrel.ini"))
        self.server = subprocess.Popen([*wrapper, os.environ["VESTREL_SERVER"], "--port", "0", *options], env=environment,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, preexec_fn=before)
        self.addCleanup(self.end, spool)
        line = self.server.stdout.readline()
        self.port = int(re.search(r"http://127\.0\.0\.1:(\d+)", line)[1])
        self.session = self.post("login", {"apikey": "secret"})["session"]

    def end(self, spool):
        """A clean end: soon, with code 0, and nothing left behind."""
        if self.server.poll() is None:
            self.server.send_signal(signal.SIGTERM)
        end = self.server.communicate(timeout=40)
        self.assertEqual(self.server.returncode, 0, end)
        self.assertEqual(list(spool.iterdir()), [])

    def ask(self, method, path, body=None, headers=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        try:
            connection.request(method, path, body, headers or {})
            reply = connection.getresponse()
            return reply.status, reply.read()
        finally:
            connection.close()

    def get(self, path):
        return json.loads(self.ask("GET", path)[1])

    def post(self, path, fields):
        body = urllib.parse.urlencode({"request-json": json.dumps(fields)})
        status, text = self.ask("POST", "/api/" + path, body, {"Content-Type": "application/x-www-form-urlencoded"})
        self.assertEqual(status, 200, text)
        return json.loads(text)

    def upload(self, picture, name="x.fit", line="\r\n", **settings):
        fields = json.dumps({"session": self.session, **settings})
        body = line.join(["--AaB03x", 'Content-Disposition: form-data; name="request-json"', "Content-Type: text/plain",
                          "", fields, "--AaB03x",
                          f'Content-Disposition: form-data; name="file"; filename="{name}"',
                          "Content-Type: application/octet-stream", "", ""]).encode()
        body += picture + f"{line}--AaB03x--{line}".encode()
        status, text = self.ask("POST", "/api/upload", body, {"Content-Type": 'multipart/form-data; boundary="AaB03x"'})
        return status, json.loads(text)

    def result(self, number, seconds=60):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            job = self.get(f"/api/jobs/{number}")["status"]
            if job != "solving":
                return job
            time.sleep(0.1)
        self.fail(f"job {number} does not end")

    def test_astroquery(self):
        try:
            from astroquery.astrometry_net import AstrometryNetClass, conf
        except ImportError:
            skip_or_fail(self, "no astroquery")
        self.start()
        client = AstrometryNetClass()
        client.URL = f"http://127.0.0.1:{self.port}/"
        client.API_URL = client.URL + "api"
        conf.api_key = "any"
        header = client.solve_from_image(str(self.frame), force_image_upload=True, solve_timeout=60, scale_units="arcsecperpix",
                                         scale_type="ev", scale_est=SCALE, scale_err=10.0)
        self.assertAlmostEqual(header["CRVAL1"], RA, delta=1e-3)
        self.assertAlmostEqual(header["CRVAL2"], DEC, delta=1e-3)
        truth = json.loads(self.frame.with_suffix(".truth.json").read_text())
        stars = [star for star in truth["brightest_stars"] if 0 < star["x"] < WIDTH and 0 < star["y"] < HEIGHT]
        # Lists count pixels from 1, the truth from 0. A pixel has 0.0025 degrees.
        header = client.solve_from_source_list([star["x"] + 1 for star in stars], [star["y"] + 1 for star in stars], WIDTH,
                                               HEIGHT, solve_timeout=60)
        self.assertAlmostEqual(header["CRVAL1"], RA, delta=5e-4)
        self.assertAlmostEqual(header["CRVAL2"], DEC, delta=5e-4)

    def test_the_way_of_other_clients(self):
        self.start()
        picture = self.frame.read_bytes()
        # Lines with a line feed alone, everything by POST, slashes at the end.
        status, reply = self.upload(picture, self.frame.name.replace('"', '\\"'), "\n", scale_units="degwidth",
                                    scale_lower=1.2, scale_upper=1.8, center_ra=RA, center_dec=DEC, radius=5)
        self.assertEqual((status, reply["status"]), (200, "success"))
        number = reply["subid"]
        self.assertEqual(self.result(number), "success")
        submission = json.loads(self.ask("POST", f"/api/submissions/{number}/", b"request-json={}")[1])
        self.assertNotEqual(submission["processing_finished"], "None")
        job = submission["jobs"][0]
        self.assertEqual(submission["job_calibrations"], [[job, job]])
        calibration = self.get(f"/api/jobs/{job}/calibration/")
        for key, value, off in (("ra", RA, 1e-3), ("dec", DEC, 1e-3), ("pixscale", SCALE, 0.01), ("orientation", 0, 0.1),
                                ("width_arcsec", WIDTH * SCALE, 5), ("height_arcsec", HEIGHT * SCALE, 5),
                                ("radius", 0.9014, 0.002)):
            self.assertAlmostEqual(calibration[key], value, delta=off, msg=key)
        self.assertEqual(calibration["parity"], -1)  # a bottom row first, as the sky is
        info = self.get(f"/api/jobs/{job}/info")
        self.assertEqual(info["original_filename"], self.frame.name)
        self.assertEqual(info["calibration"], calibration)
        written = self.ask("GET", f"/new_fits_file/{job}")[1]
        (self.folder / "new.fits").write_bytes(written)
        numpy.testing.assert_array_equal(fits.getdata(self.folder / "new.fits"), fits.getdata(self.frame))
        self.assertAlmostEqual(float(WCS(fits.getheader(self.folder / "new.fits")).wcs.crval[0]), RA, delta=1e-3)
        # The hash is SHA-1, whatever length a block of it ends at.
        self.assertEqual(reply["hash"], hashlib.sha1(picture).hexdigest())
        for length in (0, 1, 55, 56, 63, 64, 65, 119, 120, 128):
            small = picture[:length]
            self.assertEqual(self.upload(small)[1]["hash"], hashlib.sha1(small).hexdigest(), length)
        # What is no picture fails, with a reason.
        number = self.upload(b"no picture")[1]["subid"]
        self.assertEqual(self.result(number), "failure")
        self.assertIn(b"cannot be read", self.ask("GET", f"/joblog/{number}")[1])
        self.assertEqual(self.ask("GET", f"/api/jobs/{number}/calibration")[0], 404)
        self.assertEqual(self.ask("GET", "/api/jobs/99999999999999999999")[0], 404)
        status, reply = self.upload(picture, session="forged")
        self.assertEqual((status, reply["status"]), (401, "error"))
        self.assertEqual(self.post("login", {"apikey": ""})["errormessage"], "bad apikey")
        # A page from elsewhere, or by a name that was bent to this machine.
        for headers in ({"Origin": "http://evil.example"}, {"Host": "evil.example"}):
            self.assertEqual(self.ask("GET", "/queue", headers=headers)[0], 403)

    def test_200_requests_of_8_clients_and_no_lost_job(self):
        self.start()
        picture = fits.PrimaryHDU(fits.getdata(self.frame)[:200, :300]).header.tostring().encode()  # a small, bad one
        good = self.frame.read_bytes()

        def send(i):
            return self.upload(good if i % 20 == 0 else picture, f"{i}.fit", scale_units="arcsecperpix", scale_lower=8,
                               scale_upper=10, center_ra=RA, center_dec=DEC, radius=2)
        with concurrent.futures.ThreadPoolExecutor(8) as clients:
            replies = list(clients.map(send, range(200)))
        self.assertEqual({status for status, _ in replies}, {200})
        numbers = [reply["subid"] for _, reply in replies]
        self.assertEqual(sorted(numbers), list(range(1, 201)))
        for i, number in enumerate(numbers):
            self.assertEqual((i, self.result(number)), (i, "failure" if i % 20 else "success"))

    def test_hostile_requests(self):
        self.start("--max-upload", "1", "--max-queue", "500")
        fields = json.dumps({"session": self.session})
        whole = (f'--b\r\nContent-Disposition: form-data; name="request-json"\r\n\r\n{fields}\r\n--b\r\nContent-Disposition: '
                 'form-data; name="file"; filename="../../../tmp/x.fit"\r\n\r\nSIMPLE\r\n--b--\r\n').encode()
        order = random.Random(9)
        for _ in range(120):
            body = bytearray(whole)
            for _ in range(order.randint(1, 8)):
                at = order.randrange(len(body))
                body[at:at + order.randint(0, 9)] = order.choice([b"", b"\n", b"--b", b"\r\n", b'"', b"\0", b"{[", b"\\"])
            status, text = self.ask("POST", "/api/upload", bytes(body), {"Content-Type": "multipart/form-data; boundary=b"})
            self.assertIn(status, (200, 400, 401), text)
            json.loads(text)
        for body, kind, status in ((b"[" * 100000, "text/plain", 400), (b"x" * 2_000_000, "multipart/form-data; boundary=b", 413),
                                   (b"", "multipart/form-data", 400), (b"--b--", "multipart/form-data; boundary=b", 400)):
            self.assertEqual(self.ask("POST", "/api/upload", body, {"Content-Type": kind})[0], status)
        # Connections that drop at every stage, and a client that says nothing.
        head = (f"POST /api/upload HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: multipart/form-data; boundary=b\r\n"
                f"Content-Length: {len(whole)}\r\n\r\n").encode() + whole
        silent = []
        for cut in range(0, len(head), 23):
            with socket.create_connection(("127.0.0.1", self.port)) as client:
                client.sendall(head[:cut])
            if cut % 230 == 0:
                silent.append(socket.create_connection(("127.0.0.1", self.port)))
        self.assertEqual(self.ask("GET", "/queue")[0], 200)
        for client in silent:
            client.close()
        self.assertFalse(pathlib.Path("/tmp/x.fit").exists())

    def test_slow_clients_do_not_keep_the_server_from_the_others(self):
        self.start()
        line = b"POST /api/upload HTTP/1.1\r\nHost: localhost\r\n"
        for head in (line + b"X-Header: ", line + b"Content-Type: text/plain\r\nContent-Length: 100000\r\n\r\n"):
            with self.subTest(head):
                self.upload_beside_slow_clients(head)

    def upload_beside_slow_clients(self, head):
        slow = [socket.create_connection(("127.0.0.1", self.port)) for _ in range(140)]  # more than it has threads
        self.addCleanup(lambda: [client.close() for client in slow])
        for client in slow:
            client.sendall(head)
        answer = concurrent.futures.ThreadPoolExecutor(1).submit(self.upload, self.frame.read_bytes())
        end = time.monotonic() + 40
        while not answer.done() and time.monotonic() < end:
            for client in slow:  # one byte a second from each
                try:
                    client.sendall(b"x")
                except OSError:
                    pass
            time.sleep(1)
        self.assertTrue(answer.done(), "one client keeps the others from the server")
        status, reply = answer.result()
        self.assertEqual((status, self.result(reply["subid"])), (200, "success"))

    def raw(self, request):
        """What the server answers to these bytes; a client that waits for more ends."""
        with socket.create_connection(("127.0.0.1", self.port)) as client:
            client.settimeout(4)
            client.sendall(request)
            reply = b""
            try:
                while piece := client.recv(65536):
                    reply += piece
            except TimeoutError:
                pass
            return reply

    def test_lengths_that_are_wrong_harm_only_their_own_request(self):
        self.start("--max-upload", "1")
        body = b'request-json={"apikey":"x"}'
        head = b"POST /api/login HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"

        def told(length):
            return self.raw(head + b"Content-Length: " + length + b"\r\n\r\n" + body)
        self.assertIn(b'"status":"success"', told(b"%d" % len(body)))
        self.assertIn(b" 404 ", self.raw(b"POST /api/jobs/1 HTTP/1.1\r\nHost: localhost\r\n\r\n"))  # nothing follows
        for length in (b"-1", b"abc", b"99999999999999999999999", b"18446744073709551615", b"1e3", b"0x10",
                       b"%d" % (len(body) - 1)):
            self.assertRegex(told(length), rb"^HTTP/1.1 4\d\d (.|\s)*\"status\":\"error\"", length)
        # A body longer than it said: the rest is a request of its own, and no good one.
        reply = self.raw(head.replace(b"close", b"keep-alive") + b"Content-Length: %d\r\n\r\n" % len(body) + body +
                         b"GARBAGE\r\n\r\n")
        self.assertEqual(reply.count(b'"status":"success"'), 1)
        # In pieces, with lengths that lie.
        chunked = head + b"Transfer-Encoding: chunked\r\n\r\n"
        self.assertIn(b'"status":"success"', self.raw(chunked + b"%x\r\n" % len(body) + body + b"\r\n0\r\n\r\n"))
        for pieces in (b"fffffff\r\n" + body, b"zz\r\n", b"-5\r\n" + body + b"\r\n0\r\n\r\n"):
            self.assertNotIn(b'"status":"success"', self.raw(chunked + pieces), pieces)
        self.assertEqual(self.ask("GET", "/queue")[0], 200)

    def test_what_clients_make_long_does_not_pile_up(self):
        self.start()
        noise = io.BytesIO()
        fits.PrimaryHDU(numpy.random.default_rng(1).normal(1000, 99, (900, 900)).astype(numpy.uint16)).writeto(noise)
        for _ in range(4):  # the others wait behind these
            self.assertEqual(self.upload(noise.getvalue(), "n" * 100_000 + ".fit", url="u" * 100_000)[0], 200)

        def resident():
            status = pathlib.Path(f"/proc/{self.server.pid}/status").read_text()
            return int(re.search(r"VmRSS:\s+(\d+)", status)[1]) * 1024
        count = 100_000
        body = urllib.parse.urlencode({"request-json": json.dumps(
            {"session": self.session, "x": list(range(count)), "y": list(range(count)), "image_width": 600, "image_height": 400})})
        memory = []
        for _ in range(96):
            status, text = self.ask("POST", "/api/url_upload", body, {"Content-Type": "application/x-www-form-urlencoded"})
            self.assertEqual(status, 200, text)
            memory.append(resident())
        program = pathlib.Path(os.environ["VESTREL_SERVER"]).read_bytes()
        if not re.search(b"__[at]san_init", program):  # sanitizers keep what was freed
            # By then each of its threads has had some. A list in full takes 2.4 MB.
            self.assertLess(memory[-1] - memory[-21], 25_000_000)
        self.assertLess(len(self.ask("GET", "/queue")[1]), 50_000)

    def test_what_clients_send_without_end_is_not_read_without_end(self):
        self.start()
        host = b" HTTP/1.1\r\nHost: localhost\r\n"
        chunked = host + b"Transfer-Encoding: chunked\r\n\r\n"
        login = b"POST /api/login" + chunked
        endless = b"e" * 65536
        for head, piece in (
                (b"GET /", endless), (b"GET /" + host + b"X: ", endless),
                (b"GET /" + host, b"X: y\r\n" * 10000), (login, b"0" * 65536), (login + b"1;", endless),
                (login + b"0\r\n", b"X: y\r\n" * 10000), (b"POST /nothing" + chunked, b"10000\r\n" + endless + b"\r\n"),
                (b"POST /%0a" + chunked, b"10000\r\n" + endless + b"\r\n"),
                (b"PRI *" + chunked, b"10000\r\n" + endless + b"\r\n"),
                (b"PUT /api/upload" + chunked, b"10000\r\n" + endless + b"\r\n")):
            with self.subTest(head=head, piece=piece[:9]), socket.create_connection(("127.0.0.1", self.port)) as client:
                client.settimeout(20)
                client.sendall(head)
                with self.assertRaises((BrokenPipeError, ConnectionResetError)):
                    for _ in range(512):  # 32 MB
                        client.sendall(piece)
        # Parts of an answer that were asked for a thousand times.
        for path in ("/", "/queue"):
            whole = self.ask("GET", path)
            self.assertEqual(self.ask("GET", path, headers={"Range": "bytes=0-" + ",0-" * 1000}), whole)

    def test_clients_that_only_connect_leave_files_to_the_jobs(self):
        import resource
        most = 64
        self.start(before=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (most, most)))
        files = pathlib.Path(f"/proc/{self.server.pid}/fd")
        idle = []
        self.addCleanup(lambda: [client.close() for client in idle])
        for _ in range(80):
            idle.append(socket.create_connection(("127.0.0.1", self.port)))
            idle[-1].sendall(b"G")
            self.assertLess(len(list(files.iterdir())), most * 3 // 4)
        for client in idle:
            client.close()
        end = time.monotonic() + 20
        while time.monotonic() < end:
            try:
                number = self.upload(self.frame.read_bytes())[1]["subid"]
                break
            except OSError:  # it has not seen yet that they have gone
                time.sleep(0.1)
        self.assertEqual(self.result(number), "success")

    def test_a_full_queue_and_a_full_disk_are_told(self):
        import resource
        # Files may not grow beyond 64 kB: the picture does not fit, the small ones do.
        limit = 65536
        self.start("--max-queue", "3", before=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        status, reply = self.upload(self.frame.read_bytes())
        self.assertEqual(status, 507)
        self.assertIn("cannot store the picture: File too large", reply["errormessage"])
        with concurrent.futures.ThreadPoolExecutor(8) as clients:
            replies = list(clients.map(lambda i: self.upload(b"no picture"), range(60)))
        taken = [reply["subid"] for status, reply in replies if status == 200]
        self.assertTrue(taken)
        self.assertEqual({status for status, _ in replies} - {200, 503}, set())
        for number in taken:
            self.assertEqual(self.result(number), "failure")
        for _ in range(4):  # the jobs that have ended leave their places
            status, reply = self.upload(b"no picture")
            self.assertEqual((status, self.result(reply.get("subid"))), (200, "failure"))

    def test_a_disk_that_fills_up_loses_no_job(self):
        # A disk of the server's own, with room for two pictures and a bit, and one of them with its copy.
        room = 2 * self.frame.stat().st_size + 100_000
        mounted = ["unshare", "-rm", "sh", "-c", f'mount -t tmpfs -o size={room} tmpfs "$TMPDIR" && exec "$0" "$@"']
        if subprocess.run([*mounted, "true"], env=dict(os.environ, TMPDIR=str(self.folder)), stderr=subprocess.DEVNULL).returncode:
            mounted = []  # no file systems may be made here: the bound of the queue stands in
        self.start(*([] if mounted else ["--max-upload", "1"]), wrapper=mounted)
        hints = {"scale_units": "arcsecperpix", "scale_lower": 8, "scale_upper": 10, "center_ra": RA, "center_dec": DEC,
                 "radius": 2}
        picture = self.frame.read_bytes()
        with concurrent.futures.ThreadPoolExecutor(8) as clients:
            replies = list(clients.map(lambda i: self.upload(picture, f"{i}.fit", **hints), range(24)))
        taken = [reply["subid"] for status, reply in replies if status == 200]
        refused = [reply["errormessage"] for status, reply in replies if status != 200]
        self.assertEqual({status for status, _ in replies} - {200, 507}, set())
        self.assertTrue(taken)
        if mounted:
            self.assertTrue(refused)
            self.assertIn("No space left on device", refused[0])
        # Whatever was taken is solved; what had no room for its copy says so.
        for number in taken:
            self.assertEqual(self.result(number), "success")
            self.assertAlmostEqual(self.get(f"/api/jobs/{number}/calibration")["ra"], RA, delta=1e-3)
            status, copy = self.ask("GET", f"/new_fits_file/{number}")
            log = self.ask("GET", f"/joblog/{number}")[1]
            self.assertEqual(b"is not there" in log, status == 404, log)
            self.assertTrue(status == 404 or len(copy) % 2880 == 0)
        # The refused ones left nothing behind: there is room again for what fits.
        self.assertEqual(self.result(self.upload(picture[:20000])[1]["subid"]), "failure")

    def test_a_server_that_was_killed_leaves_nothing_to_the_next(self):
        spool = self.folder / "killed"
        self.start(spool=spool)
        for _ in range(5):
            self.upload(self.frame.read_bytes())
        self.assertEqual(len(list(spool.iterdir())), 1)
        self.server.kill()
        self.server.communicate()
        self.server.returncode = 0  # as wished
        (spool / "vestrel-server-of somebody").mkdir()
        environment = dict(os.environ, TMPDIR=str(spool), VESTREL_CATALOG=str(CATALOG))
        line = [os.environ["VESTREL_SERVER"], "--port", "0"]
        second = subprocess.Popen(line, env=environment, stdout=subprocess.PIPE, text=True)
        self.addCleanup(second.kill)
        port = re.search(r":(\d+)$", second.stdout.readline())[1]
        self.assertEqual(len(list(spool.glob("vestrel-server-[0-9]*"))), 1)
        # A third one does not take the port, nor the second one's folder.
        third = subprocess.run([*line[:1], "--port", port], env=environment, capture_output=True, text=True, timeout=20)
        self.assertEqual(third.returncode, 1)
        self.assertIn("is it in use?", third.stderr)
        self.assertEqual(len(list(spool.glob("vestrel-server-[0-9]*"))), 1)
        second.send_signal(signal.SIGINT)
        second.communicate(timeout=20)
        self.assertEqual(second.returncode, 0)
        self.assertEqual([path.name for path in spool.iterdir()], ["vestrel-server-of somebody"])
        shutil.rmtree(spool / "vestrel-server-of somebody")
        for wrong in (["--port", "70000"], ["--max-upload", "0"], ["--bogus"], ["--port", "x"]):
            end = subprocess.run([line[0], *wrong], env=environment, capture_output=True, timeout=20)
            self.assertEqual((wrong, end.returncode), (wrong, 2))

    def test_a_folder_in_use_is_left_alone_and_one_that_was_cleaned_away_is_made_again(self):
        spool = self.folder / "shared"
        spool.mkdir()
        # No process here has such a number; one in a container that shares the folder may.
        held, left = (spool / f"vestrel-server-{number}-x" for number in (4194305, 4194306))
        for folder in held, left:
            (folder / "job").mkdir(parents=True)
        lock = os.open(held, os.O_RDONLY)
        self.addCleanup(os.close, lock)
        fcntl.flock(lock, fcntl.LOCK_EX)
        self.start(spool=spool)
        self.assertTrue((held / "job").exists())
        self.assertFalse(left.exists())
        shutil.rmtree(held)
        [own] = spool.iterdir()
        other = os.open(own, os.O_RDONLY)
        self.addCleanup(os.close, other)
        with self.assertRaises(BlockingIOError):
            fcntl.flock(other, fcntl.LOCK_EX | fcntl.LOCK_NB)
        own.rmdir()
        status, reply = self.upload(self.frame.read_bytes())
        self.assertEqual((status, self.result(reply.get("subid"))), (200, "success"))

    def test_an_address_is_printed_as_urls_have_it(self):
        environment = dict(os.environ, TMPDIR=str(self.folder), VESTREL_CATALOG=str(CATALOG))
        server = subprocess.Popen([os.environ["VESTREL_SERVER"], "--address", "::1", "--port", "0"], env=environment,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = server.stdout.readline() or server.stderr.readline()  # the second without IPv6
        server.terminate()
        server.communicate(timeout=20)
        self.assertIn("[::1]:", line)

    def test_an_end_in_the_middle_of_work_is_soon_and_clean(self):
        self.start()
        noise = fits.PrimaryHDU(numpy.random.default_rng(1).normal(1000, 99, (900, 900)).astype(numpy.uint16))
        packed = io.BytesIO()
        noise.writeto(packed)
        for _ in range(6):
            self.assertEqual(self.upload(packed.getvalue())[0], 200)
        with socket.create_connection(("127.0.0.1", self.port)) as half:
            half.sendall(b"POST /api/upload HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000\r\n\r\nhalf a request")
            time.sleep(0.3)
            start = time.monotonic()
            self.server.send_signal(signal.SIGTERM)
            self.assertEqual(self.server.wait(30), 0)  # the six solves may take twelve minutes
            self.assertLess(time.monotonic() - start, 5)

    def test_a_picture_that_is_whole_only_after_the_signal_is_refused_and_leaves_nothing(self):
        self.start()
        fields = json.dumps({"session": self.session})
        whole = (f'--b\r\nContent-Disposition: form-data; name="request-json"\r\n\r\n{fields}\r\n--b\r\nContent-Disposition: '
                 'form-data; name="file"; filename="x.fit"\r\n\r\nSIMPLE\r\n--b--\r\n').encode()
        with socket.create_connection(("127.0.0.1", self.port)) as late, \
                socket.create_connection(("127.0.0.1", self.port)) as half:
            late.sendall((f"POST /api/upload HTTP/1.1\r\nHost: localhost\r\nContent-Type: multipart/form-data; boundary=b\r\n"
                          f"Content-Length: {len(whole)}\r\n\r\n").encode() + whole[:-10])
            half.sendall(b"GET ")  # the server waits for it until its patience ends
            time.sleep(0.3)
            self.server.send_signal(signal.SIGTERM)
            end = time.monotonic() + 20
            while list((self.folder / "spool").iterdir()) and time.monotonic() < end:
                time.sleep(0.01)
            late.sendall(whole[-10:])
            self.assertRegex(late.recv(65536), rb"^HTTP/1.1 503 ")
            self.assertEqual(self.server.wait(30), 0)

    def test_two_signals_at_once_are_one(self):
        self.start()
        self.server.send_signal(signal.SIGTERM)
        self.server.send_signal(signal.SIGINT)
        self.assertEqual(self.server.wait(30), 0)

    def test_a_second_signal_waits_for_no_client(self):
        self.start()
        with socket.create_connection(("127.0.0.1", self.port)) as half:
            half.sendall(b"GET ")
            for _ in range(2):
                time.sleep(1)
                self.server.send_signal(signal.SIGTERM)
            self.assertEqual(self.server.wait(30), -signal.SIGTERM)
        self.server.returncode = 0  # as wished
        for path in (self.folder / "spool").iterdir():
            shutil.rmtree(path)

    def test_wrong_requests_are_told_apart(self):
        self.start("--key", "secret")
        self.assertEqual(self.post("login", {"apikey": "x"})["errormessage"], "bad apikey")
        form = {"Content-Type": "application/x-www-form-urlencoded"}
        stars = {"x": [1, 2, 3], "y": [1, 2, 3], "image_width": 100, "image_height": 100}

        def url_upload(**changes):
            fields = {"session": self.session, **stars, **changes}
            body = urllib.parse.urlencode({"request-json": json.dumps(fields)})
            return self.ask("POST", "/api/url_upload", body, form)
        self.assertEqual(url_upload()[0], 200)
        for changes in ({"x": [1]}, {"x": "123"}, {"y": None}, {"x": [1, "2", 3]}, {"image_width": 0}, {"image_height": -5},
                        {"image_width": 1e9}, {"image_width": "NaN"}, {"x": {}, "y": {}}):
            status, text = url_upload(**changes)
            self.assertEqual((status, json.loads(text)["status"]), (400, "error"), changes)
        self.assertEqual(url_upload(session="x")[0], 401)
        self.assertEqual(url_upload(x=None, y=None)[0], 400)
        status, text = self.ask("POST", "/api/url_upload", urllib.parse.urlencode(
            {"request-json": json.dumps({"session": self.session, "url": "http://127.0.0.1/x.fit"})}), form)
        self.assertEqual(status, 400)
        self.assertIn("fetches nothing", json.loads(text)["errormessage"])
        # Hints that are none are left out, whatever they are.
        nonsense = {"scale_units": ["x"], "scale_type": 5, "scale_lower": "low", "scale_upper": -1, "center_ra": 1e300,
                    "center_dec": "north", "radius": {}, "tweak_order": "x", "parity": [], "downsample_factor": 1e9}
        for more in ({}, {"scale_type": "ev", "scale_est": 5e-324, "scale_lower": 0}, {"scale_lower": 1, "scale_upper": "1e999"},
                     {"scale_type": "ev", "scale_est": 1e308, "scale_err": 1e308}):
            status, reply = self.upload(self.frame.read_bytes(), **{**nonsense, **more})
            self.assertEqual((status, self.result(reply["subid"])), (200, "success"), more)
        for method, path, status in (("GET", "/../../etc/passwd", 404), ("GET", "/new_fits_file/..%2f..", 404),
                                     ("GET", "/wcs_file/-1", 404), ("GET", "/api/upload", 404), ("DELETE", "/queue", 404),
                                     ("POST", "/api/nothing", 404), ("GET", "/api/jobs/3000000000", 404),
                                     ("GET", "/joblog/0", 404), ("HEAD", "/", 200), ("GET", "/api/jobs/2/", 200)):
            self.assertEqual((path, self.ask(method, path)[0]), (path, status))
        for path in ("/upload", "/api/jobs/77"):
            self.assertEqual((path, self.ask("POST", path, bytes(200_000))[0]), (path, 404))

    def test_the_page_in_a_browser(self):
        browser = shutil.which("chromium")
        if browser is None:
            skip_or_fail(self, "no chromium")
        self.start()
        name = '<img src=x onerror="document.title=1">.fit'
        self.upload(self.frame.read_bytes(), name.replace('"', '\\"'))
        self.assertEqual(self.result(1), "success")
        into, out = os.pipe(), os.pipe()
        # The browser takes commands from descriptor 3 and answers on 4, each text ended by a zero.
        line = [browser, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--remote-debugging-pipe", f"--user-data-dir={self.folder / 'browser'}"]
        run = subprocess.Popen(["bash", "-c", f'exec "$0" "$@" 3<&{into[0]} 4>&{out[1]}', *line],
                               pass_fds=(into[0], out[1]), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(into[0]), os.close(out[1])
        commands, answers = os.fdopen(into[1], "wb", 0), os.fdopen(out[0], "rb")
        self.addCleanup(answers.close)
        self.addCleanup(commands.close)
        self.addCleanup(run.wait)
        self.addCleanup(run.terminate)
        numbers = iter(range(1, 10000))
        rest = b""

        def call(method, session=None, **parameters):
            nonlocal rest
            number = next(numbers)
            text = {"id": number, "method": method, "params": parameters}
            if session:
                text["sessionId"] = session
            commands.write(json.dumps(text).encode() + b"\0")
            while True:
                while b"\0" not in rest:
                    piece = os.read(answers.fileno(), 65536)
                    self.assertTrue(piece, "the browser has ended")
                    rest += piece
                answer, rest = rest.split(b"\0", 1)
                answer = json.loads(answer)
                if answer.get("id") == number:
                    self.assertNotIn("error", answer)
                    return answer["result"]
        target = call("Target.createTarget", url=f"http://127.0.0.1:{self.port}/")["targetId"]
        session = call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

        def evaluate(script):
            result = call("Runtime.evaluate", session, expression=script, awaitPromise=True, returnByValue=True)
            self.assertNotIn("exceptionDetails", result)
            return result["result"].get("value")

        def wait_for(text):
            end = time.monotonic() + 40
            while text not in (seen := evaluate("document.body ? document.body.innerText : ''")):
                self.assertLess(time.monotonic(), end, f"{text!r} is not in {seen!r}")
                time.sleep(0.2)
        wait_for(name)
        self.assertEqual(evaluate("document.title + document.images.length"), "Vestrel0")
        evaluate("""(async () => {
            const bytes = await (await fetch("/new_fits_file/1")).arrayBuffer();
            const data = new DataTransfer();
            data.items.add(new File([bytes], "dropped.fit"));
            document.getElementById("drop").dispatchEvent(new DragEvent("drop", {dataTransfer: data}));
        })()""")
        wait_for("dropped.fit is job 2")
        self.assertEqual(self.result(2), "success")
        wait_for("dropped.fit\tsuccess\t56.")
        self.assertEqual(evaluate("document.querySelectorAll('a[href=\"/wcs_file/2\"]').length"), 1)


if __name__ == "__main__":
    unittest.main()
