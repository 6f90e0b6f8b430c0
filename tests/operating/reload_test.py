"""SIGHUP and POST /reload read the configuration anew, and a certificate that changes is taken without either."""

import hashlib
import http.client
import json
import os
import signal
import socket
import ssl
import subprocess
import unittest
import unittest.mock

import support


class Reload(support.Case):
    def setUp(self):
        super().setUp()
        self.config = self.folder / "config.json"

    def certify(self, name):
        """A new certificate in the place of the server's, as its renewal puts it there; its fingerprint."""
        pem = subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                              "-days", "2", "-subj", "/CN=" + name, "-keyout", "-", "-out", "-"], text=True,
                             capture_output=True, check=True).stdout
        new = self.folder / "new.pem"
        new.write_text(pem)
        os.rename(new, self.folder / "identity.pem")
        begin = pem.index("-----BEGIN CERTIFICATE")
        return hashlib.sha256(ssl.PEM_cert_to_DER_cert(pem[begin:])).digest()

    def write(self, token="first", tls=True, **more):
        address = {"ListenPort": 0, "TLSIdentity": "identity.pem"} if tls else {"ListenPort": 0}
        self.config.write_text(json.dumps({"BindAddress": address, "Log": {"Level": "notice"}, **more, "AccessTokens": [
            {"Name": "a", "Token": token, "Role": "admin"}, {"Name": "b", "Token": token + "-reader", "Role": "read"}]}))

    def ask(self, server, method, path, token):
        """Status, JSON and the certificate's fingerprint of one answer, over a connection of its own."""
        context = ssl.create_default_context()
        context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
        connection = http.client.HTTPSConnection("127.0.0.1", server.port, timeout=support.PATIENCE_SEC, context=context)
        connection.request(method, path, headers={"Authorization": "Bearer " + token})
        fingerprint = hashlib.sha256(connection.sock.getpeercert(True)).digest()
        answer = connection.getresponse()
        text = answer.read().decode()
        connection.close()
        return answer.status, json.loads(text) if text else None, fingerprint

    def test_a_signal_and_a_request_take_identity_tokens_and_level_anew(self):
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(str(self.folder / "notify"))
        manager.settimeout(support.PATIENCE_SEC)
        first = self.certify("first")
        self.write()
        with unittest.mock.patch.dict(os.environ, {"NOTIFY_SOCKET": str(self.folder / "notify")}):
            server = self.serve(self.config)
        self.assertTrue(manager.recv(999).startswith(b"READY=1\n"))
        self.assertEqual(self.ask(server, "GET", "/api/v1/config", "first")[::2], (200, first))
        second = self.certify("second")
        self.write("second", Limits={"MaxListeners": 7, "IOThreads": 9})
        server.process.send_signal(signal.SIGHUP)
        self.assertRegex(manager.recv(999), rb"^RELOADING=1\nMONOTONIC_USEC=\d+$")
        self.assertEqual(manager.recv(999), b"READY=1")
        status, limits, seen = self.ask(server, "GET", "/api/v1/config", "second")
        self.assertEqual((status, limits["max_listeners"], seen), (200, 7, second))
        self.assertEqual(self.ask(server, "GET", "/api/v1/config", "first")[0], 401)
        self.assertTrue(server.printed("Only the next start takes /Limits/IOThreads"))

        self.write("second", Log={"Level": "error"}, PythonPath=["handlers"])
        self.assertEqual(self.ask(server, "POST", "/api/v1/reload", "second-reader")[0], 403)
        status, answer, _ = self.ask(server, "POST", "/api/v1/reload", "second")
        self.assertEqual((status, answer["taken"], answer["needs_restart"]),
                         (200, ["/Limits/MaxListeners", "/Log/Level"], ["/PythonPath"]))
        self.assertEqual(answer["handlers"], {"reloaded": [], "failed": []})

    def test_a_faulty_configuration_changes_nothing_and_says_why(self):
        first = self.certify("first")
        self.write()
        server = self.serve(self.config)
        self.certify("second")
        self.write("second", Nonsense=1)
        status, answer, _ = self.ask(server, "POST", "/api/v1/reload", "first")
        self.assertEqual((status, answer["errors"]), (409, [{"pointer": "/Nonsense", "detail": "is not known"}]))
        self.write("second")
        (self.folder / "identity.pem").write_text("-----BEGIN CERTIFICATE\nx\nPRIVATE KEY-----\n")
        status, answer, seen = self.ask(server, "POST", "/api/v1/reload", "first")
        self.assertEqual((status, answer["errors"][0]["pointer"]), (409, "/BindAddress"))
        self.assertEqual(self.ask(server, "GET", "/api/v1/config", "first")[0], 200)
        self.assertEqual(self.ask(server, "GET", "/api/v1/config", "second")[0], 401)
        support.eventually(lambda: server.printed("the one before stays"), "the changed file is looked at")
        self.write(tls=False)
        status, answer, seen = self.ask(server, "POST", "/api/v1/reload", "first")
        self.assertEqual((status, answer["needs_restart"]), (200, ["/BindAddress/TLSIdentity"]))
        self.assertNotEqual(seen, None)

    def listen(self, server, token, path, **fields):
        """A connection that the feed has been asked on, as a file to read from behind the answer's head."""
        connection = socket.create_connection(("127.0.0.1", server.port), support.PATIENCE_SEC)
        self.addCleanup(connection.close)
        fields = {"Host": "localhost", "Authorization": "Bearer " + token, **fields}
        head = "GET %s HTTP/1.1\r\n%s\r\n" % (path, "".join("%s: %s\r\n" % (n.replace("_", "-"), v) for n, v in fields.items()))
        connection.sendall(head.encode())
        reading = connection.makefile("rb")
        self.addCleanup(reading.close)
        status = int(reading.readline().split()[1])
        while reading.readline().strip():
            pass
        return status, reading

    def websocket(self, server, token, protocol):
        status, reading = self.listen(server, token, "/api/v1/feed", Upgrade="websocket", Connection="Upgrade",
                                      Sec_WebSocket_Version=13, Sec_WebSocket_Key="dGhlIHNhbXBsZSBub25jZQ==",
                                      Sec_WebSocket_Protocol=protocol)
        self.assertEqual(status, 101)
        return reading

    def frame(self, reading):
        """Opcode and payload of a short frame."""
        first, size = reading.read(2)
        if size == 126:
            size = int.from_bytes(reading.read(2), "big")
        return first & 15, reading.read(size)

    def test_whose_token_is_gone_or_narrowed_leaves_the_feed_and_nobody_else(self):
        def tokens(**events):
            self.config.write_text(json.dumps({"BindAddress": {"ListenPort": 0}, "Log": {"Level": "notice"}, "AccessTokens": [
                {"Name": "a", "Token": "admin", "Role": "admin"}] + [
                    {"Name": name, "Token": name, "Role": "read", **({"Events": those} if those else {})}
                    for name, those in events.items()]}))

        tokens(gone=[], narrowed=["order.*"], widened=["order.new"])
        server = self.serve(self.config)
        admin = {"Authorization": "Bearer admin", "Content-Type": "application/json"}
        self.assertEqual(server.call("POST", "/api/v1/events", {"event_name": "order.new"}, admin)[0], 201)
        leaving = [self.websocket(server, "gone", "velmora.feed.v1"), self.websocket(server, "narrowed", "velmora.feed.v2")]
        stream = self.listen(server, "gone", "/api/v1/feed/sse")[1]
        staying = [self.websocket(server, "widened", "velmora.feed.v2"), self.websocket(server, "admin", "velmora.feed.v2")]
        for reading in [leaving[1], *staying]:
            self.assertEqual(self.frame(reading)[0], 1)  # where it stands
        tokens(narrowed=["order.new"], widened=["order.*", "stock"])
        self.assertEqual(server.call("POST", "/api/v1/reload", None, admin)[0], 200)
        self.assertEqual(server.call("POST", "/api/v1/events/order.new", {"after": "the reload"}, admin)[0], 202)
        for reading in leaving:
            self.assertEqual(self.frame(reading), (8, b"\x03\xf0access taken back"))
        text = stream.read().decode()  # to its end
        self.assertTrue(text.endswith(": closed 1008 access taken back\n\n"), text)
        self.assertNotIn("after", text)
        for reading in staying:
            self.assertIn(b'"after":"the reload"', self.frame(reading)[1])
        support.eventually(lambda: sum("access was taken back" in line for line in list(server.output)) == 3, "they are named")
        self.config.write_text(json.dumps({"BindAddress": {"ListenPort": 0}, "AccessToken": "admin"}))  # in another place
        self.assertEqual(server.call("POST", "/api/v1/reload", None, admin)[0], 200)
        self.assertEqual(self.frame(staying[0])[0], 8)
        self.assertEqual(server.call("POST", "/api/v1/events/order.new", {"to": "the last"}, admin)[0], 202)
        self.assertIn(b'"to":"the last"', self.frame(staying[1])[1])

    def test_a_certificate_that_changes_is_taken_without_a_word(self):
        self.certify("first")
        self.write()
        server = self.serve(self.config)
        second = self.certify("second")
        support.eventually(lambda: self.ask(server, "GET", "/healthz", "")[2] == second, "the new certificate is shown")
        self.assertTrue(server.printed("has changed, and is taken anew"))


if __name__ == "__main__":
    unittest.main()
