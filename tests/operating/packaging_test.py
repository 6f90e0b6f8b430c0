"""The manual page and the completions say what --help does; the configurations that are shipped pass as they are."""

import re
import shutil
import subprocess
import unittest

import support

PACKAGING = support.SOURCE / "packaging"


class Packaging(support.Case):
    def test_every_option_is_in_the_manual_and_the_completions_and_no_other(self):
        shown = subprocess.run([support.SERVER, "--help"], text=True, capture_output=True, check=True).stdout
        options = set(re.findall(r"^ +(--[\w-]+)", shown, re.MULTILINE))
        self.assertIn("--config", options)
        texts = {name: (PACKAGING / ("velmora-server." + name)).read_text() for name in ("1", "bash", "zsh", "fish")}
        texts["1"] = "".join(re.findall(r"^\.TP\n\\fB(\\-\\-\S+?)\\fR", texts["1"], re.MULTILINE)).replace("\\-", "-")
        self.assertEqual(set(re.findall(r"--[a-z]+(?:-[a-z]+)*?(?=--|$)", texts["1"])), options)
        self.assertEqual(set(re.findall(r"'(--[\w-]+)\[", texts["zsh"])), options)
        self.assertEqual({"--" + name for name in re.findall(r" -l ([\w-]+)", texts["fish"])}, options)
        self.assertEqual(set(re.findall(r"--[a-z][\w-]+", texts["bash"])), options)

    def test_bash_completes(self):
        script = (". %s; COMP_WORDS=(velmora-server --log-level w); COMP_CWORD=2; _velmora_server; echo ${COMPREPLY[@]};"
                  "COMP_WORDS=(velmora-server --p); COMP_CWORD=1; _velmora_server; echo ${COMPREPLY[@]}")
        said = subprocess.run(["bash", "-c", script % (PACKAGING / "velmora-server.bash")], text=True, capture_output=True)
        self.assertEqual((said.stdout, said.stderr), ("warn\n--print-config\n", ""))

    def test_shipped_configurations_are_right(self):
        (self.folder / "token").write_text("a-token\n")
        (self.folder / "handlers").mkdir()
        pem = subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                              "-days", "2", "-subj", "/CN=localhost", "-keyout", "-", "-out", "-"], text=True,
                             capture_output=True, check=True).stdout
        (self.folder / "identity.pem").write_text(pem)
        for file in (PACKAGING / "velmora-server.json", PACKAGING / "container.json",
                     support.SOURCE / "examples" / "config-production.json"):
            text = file.read_text()
            for place in ("/etc/velmora/", "/var/lib/velmora/"):
                text = text.replace(place, str(self.folder) + "/")
            text = re.sub(r'"ListenPort": \d+', '"ListenPort": 0', text)
            (self.folder / "config.json").write_text(text)
            said = subprocess.run([support.SERVER, "--config", self.folder / "config.json", "--check"], text=True,
                                  capture_output=True)
            self.assertEqual((said.returncode, said.stderr), (0, ""), file)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd is not installed")
    def test_the_unit_is_one(self):
        unit = self.folder / "velmora-server.service"
        unit.write_text((PACKAGING / "velmora-server.service").read_text().replace("/usr/bin/velmora-server", support.SERVER))
        said = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], text=True, capture_output=True)
        self.assertEqual([line for line in said.stderr.splitlines() if "velmora-server" in line], [])


if __name__ == "__main__":
    unittest.main()
