"""The server behind real proxies, with the configurations of the examples: requests, pages and the feed."""

import base64
import http.client
import json
import os
import shutil
import socket
import ssl
import subprocess
import unittest

import support
from support import eventually

NAME = "events.example.org"


class Proxies(support.Case):
    def certificate(self):
        pem = self.folder / "pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days",
                        "2", "-subj", "/CN=" + NAME, "-keyout", pem, "-out", str(pem) + ".crt"], check=True, capture_output=True)
        return pem

    front = ""  # what the proxy has in front of the server's paths

    def server_and_port(self, allowed):
        address = {"AllowedHosts": [NAME] if allowed else [], **({"BasePath": self.front} if self.front else {})}
        (self.folder / "config.json").write_text(json.dumps({"BindAddress": address,
                                                             "EventManager": {"event_list": [{"event_name": "e"}]}}))
        return self.serve(self.folder / "config.json"), support.free_port()

    def start(self, command, port, **environment):
        process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   env={**os.environ, **environment})
        self.addCleanup(process.wait, support.PATIENCE_SEC)
        self.addCleanup(process.terminate)

        def listens():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port)) == 0
        eventually(listens, "%s listens" % command[0])

    def nginx(self, file, port, upstream):
        """nginx with a configuration of the examples, told other ports, certificate and folder."""
        pem = self.certificate()
        text = (self.examples / file).read_text()
        for old, new in (("443 ssl", "127.0.0.1:%d ssl" % port), ("127.0.0.1:8000;", "127.0.0.1:%d;" % port),
                         ("127.0.0.1:8080", "127.0.0.1:%d" % upstream), ("location / {", "location %s/ {" % self.front),
                         ("root /srv", "root %s" % self.examples),
                         ("/etc/letsencrypt/live/%s/fullchain.pem" % NAME, str(pem) + ".crt"),
                         ("/etc/letsencrypt/live/%s/privkey.pem" % NAME, str(pem))):
            text = text.replace(old, new)
        paths = "".join("%s_temp_path %s/%s;" % (kind, self.folder, kind)
                        for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        user = "user root;" if os.geteuid() == 0 else ""
        (self.folder / "nginx.conf").write_text(
            "daemon off; %s pid %s/nginx.pid; error_log %s/error.log; events {} http { access_log off; %s %s }"
            % (user, self.folder, self.folder, paths, text))
        self.start([shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin"), "-c", self.folder / "nginx.conf"], port)

    def ask(self, port, method, path, headers, tls=True):
        if tls:
            context = ssl.create_default_context()
            context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
            plain = socket.create_connection(("127.0.0.1", port), support.PATIENCE_SEC)
            connection = http.client.HTTPConnection(NAME, port)
            connection.sock = context.wrap_socket(plain, server_hostname=NAME)
        else:
            connection = http.client.HTTPConnection("127.0.0.1", port, timeout=support.PATIENCE_SEC)
        self.addCleanup(connection.close)
        body = "{}" if method == "POST" else None
        connection.request(method, self.front + path, body, {"Content-Type": "application/json", **headers})
        return connection

    def status(self, *arguments, **more):
        return self.ask(*arguments, **more).getresponse().status

    def feed(self, port, headers, tls=True):
        """The status of the feed's upgrade, and its connection."""
        key = base64.b64encode(b"0123456789abcdef").decode()
        connection = self.ask(port, "GET", "/api/v1/feed", {"Connection": "Upgrade", "Upgrade": "websocket", "Sec-WebSocket-Version":
                                                            "13", "Sec-WebSocket-Key": key, **headers}, tls)
        return connection.getresponse().status, connection

    def check(self, server, port, page, tls=True):
        """A page of the address `page` may do everything, others nothing, and the feed brings what is posted."""
        host = page.split("//")[1]
        own = {"Host": host, "Origin": page}
        self.assertEqual(self.status(port, "GET", "/", own, tls), 200)
        self.assertEqual(self.status(port, "POST", "/api/v1/events/e", {**own, "Origin": "https://elsewhere.example"}, tls), 403)
        status, feed = self.feed(port, own, tls)
        self.assertEqual(status, 101)
        eventually(lambda: "\nvelmora_feed_clients 1\n" in server.call("GET", "/metrics")[1], "the client is on the feed")
        self.assertEqual(self.status(port, "POST", "/api/v1/events/e", own, tls), 202)
        feed.sock.settimeout(support.PATIENCE_SEC)
        self.assertIn(b'"event_name":"e"', feed.sock.recv(4096))

    @unittest.skipUnless(shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin"), "nginx is not installed")
    def test_nginx(self):
        server, port = self.server_and_port(allowed=True)
        self.nginx("proxy/nginx.conf", port, server.port)
        self.check(server, port, "https://" + NAME)

    @unittest.skipUnless(shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin"), "nginx is not installed")
    def test_below_a_path(self):
        self.front = "/velmora"
        server, port = self.server_and_port(allowed=True)
        self.nginx("proxy/nginx.conf", port, server.port)
        self.check(server, port, "https://" + NAME)
        self.assertEqual(self.status(port, "GET", "/healthz", {"Host": NAME}), 200)
        self.assertEqual(self.status(port, "GET", "/console/app.js", {"Host": NAME}), 200)

    @unittest.skipUnless(shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin"), "nginx is not installed")
    def test_a_name_that_is_not_allowed_is_misdirected(self):
        server, port = self.server_and_port(allowed=False)
        self.nginx("proxy/nginx.conf", port, server.port)
        self.assertEqual(self.status(port, "GET", "/", {"Host": NAME}), 421)

    @unittest.skipUnless(shutil.which("nginx", path=os.environ["PATH"] + ":/usr/sbin"), "nginx is not installed")
    def test_the_dashboard_under_one_address(self):
        server, port = self.server_and_port(allowed=False)
        self.nginx("dashboard/nginx.conf", port, server.port)
        for file, kind in (("", "text/html"), ("dashboard.mjs", "text/javascript"), ("dashboard.css", "text/css")):
            answer = self.ask(port, "GET", "/dashboard/" + file, {}, tls=False).getresponse()
            self.assertEqual((answer.status, answer.getheader("Content-Type")), (200, kind))
        self.check(server, port, "http://127.0.0.1:%d" % port, tls=False)

    @unittest.skipUnless(shutil.which("caddy"), "Caddy is not installed")
    def test_caddy(self):
        server, port = self.server_and_port(allowed=True)
        pem = self.certificate()
        text = (self.examples / "proxy" / "Caddyfile").read_text().replace("8080", str(server.port))
        text = text.replace(NAME + " {", "https://%s:%d {\n\ttls %s.crt %s" % (NAME, port, pem, pem))
        (self.folder / "Caddyfile").write_text("{\n\tadmin off\n\tauto_https off\n}\n" + text)
        self.start([shutil.which("caddy"), "run", "--adapter", "caddyfile", "--config", self.folder / "Caddyfile"], port,
                   HOME=str(self.folder), XDG_DATA_HOME=str(self.folder), XDG_CONFIG_HOME=str(self.folder))
        self.check(server, port, "https://" + NAME)


if __name__ == "__main__":
    unittest.main()
