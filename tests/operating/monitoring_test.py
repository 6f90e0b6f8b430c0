"""The examples for monitoring name metrics that the server has; promtool finds nothing to say of either."""

import json
import re
import shutil
import subprocess
import unittest

import support

MONITORING = support.SOURCE / "examples" / "monitoring"
PROMTOOL = shutil.which("promtool")


class Monitoring(support.Case):
    def metrics(self):
        (self.folder / "config.json").write_text("{}")
        return self.serve(self.folder / "config.json").call("GET", "/metrics")[1]

    def test_names_only_metrics_that_exist(self):
        known = set(re.findall(r"^(\w+)[ {]", self.metrics(), re.MULTILINE)) | {"up"}
        dashboard = json.loads((MONITORING / "velmora-dashboard.json").read_text())
        texts = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
        texts += [variable["query"] for variable in dashboard["templating"]["list"]]
        texts += re.findall(r"expr: (?:>-\n)?(.*?)\n +(?:for|labels):", (MONITORING / "velmora-rules.yml").read_text(), re.DOTALL)
        named = set(re.findall(r"\b(?:velmora|process)_\w+", " ".join(texts)))
        self.assertGreater(len(named), 20)
        self.assertEqual(named - known, set())

    @unittest.skipUnless(PROMTOOL, "promtool is not installed")
    def test_promtool_has_nothing_to_say(self):
        for arguments, text in ((["check", "metrics"], self.metrics()), (["check", "rules", MONITORING / "velmora-rules.yml"], ""),
                                (["check", "config", MONITORING / "prometheus.yml"], "")):
            with self.subTest(arguments=arguments):
                said = subprocess.run([PROMTOOL, *arguments], input=text, text=True, capture_output=True)
                self.assertEqual((said.returncode, said.stderr), (0, ""), said.stdout)


if __name__ == "__main__":
    unittest.main()
