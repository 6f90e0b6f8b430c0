"""What the pages lead to exists, the start page leads to every page, and monitoring.md lists the figures that there are."""

import re
import unittest

import support

DOCS = support.SOURCE / "docs"


class Pages(support.Case):
    def test_links_lead_somewhere(self):
        pages = sorted(DOCS.glob("*.md")) + [support.SOURCE / "README.md"]
        broken = []
        for page in pages:
            for link in re.findall(r"\]\(([^)#]+)(?:#[^)]*)?\)", page.read_text()):
                if not re.match(r"\w+:", link) and not (page.parent / link).exists():
                    broken.append("%s: %s" % (page.name, link))
        self.assertEqual(broken, [])

    def test_the_start_page_leads_to_every_page(self):
        start = (DOCS / "README.md").read_text()
        missing = [page.name for page in DOCS.glob("*.md") if page.name != "README.md" and "](%s)" % page.name not in start]
        self.assertEqual(missing, [])

    def test_every_figure_stands_in_the_table_and_no_other(self):
        (self.folder / "config.json").write_text('{"Deliveries": {}}')
        metrics = self.serve(self.folder / "config.json").call("GET", "/metrics")[1]
        known = set(re.findall(r"^# TYPE (\w+) (\w+)$", metrics, re.MULTILINE))
        listed = set(re.findall(r"^\| `(\w+)` \| (\w+) \|", (DOCS / "monitoring.md").read_text(), re.MULTILINE))
        self.assertGreater(len(known), 40)
        self.assertEqual(known - listed, set(), "are missing in docs/monitoring.md")
        self.assertEqual(listed - known, set(), "stand in docs/monitoring.md, but there are no such")


if __name__ == "__main__":
    unittest.main()
