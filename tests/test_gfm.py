"""The generated Markdown as GitHub renders it (cmark-gfm with its table extension)."""

import re
import shutil
import subprocess
import unittest

import support
from support import docs

CMARK_GFM = shutil.which("cmark-gfm")


def rendered_tables(markdown):
    """The tables of the HTML that cmark-gfm makes: each a list of rows, each a list of cells."""
    done = subprocess.run([CMARK_GFM, "--extension", "table"], input=markdown, capture_output=True,
                          encoding="utf-8", check=True)
    return [[re.findall(r"<t[hd][^>]*>(.*?)</t[hd]>", row) for row in re.findall(r"<tr>(.*?)</tr>", table, re.S)]
            for table in re.findall(r"<table>(.*?)</table>", done.stdout, re.S)]


def source_tables(text):
    """The runs of lines that start with "|": each table's rows, its delimiter row left out."""
    tables, run = [], []
    for line in text.split("\n"):
        if line.startswith("|"):
            run.append(line)
        elif run:
            tables.append([run[0], *run[2:]])
            run = []
    return tables + [[run[0], *run[2:]]] if run else tables


@unittest.skipUnless(CMARK_GFM, "cmark-gfm is not installed")
class RenderedTablesTest(unittest.TestCase):
    def test_tables_keep_their_columns_and_pipes(self):
        with support.example_copy() as root:
            docs.write_blocks(root)
            for path in ("README.md", "docs/mcp-tools.md"):
                text = (root / path).read_text(encoding="utf-8")
                tables = source_tables(text)
                generated = [table for body in docs._blocks(text).values()
                             for table in source_tables(body)]
                self.assertTrue(generated and all(table in tables for table in generated), path)
                rendered = rendered_tables(text)
                self.assertEqual(len(rendered), len(tables), path)
                for rows, table in zip(tables, rendered):
                    columns = len(table[0])
                    with self.subTest(path=path, header=rows[0]):
                        # Every source row is one row of the table, with the header's cells...
                        self.assertEqual([len(row) for row in table], [columns] * len(rows))
                        # ...by itself, not padded or cut: GitHub takes a row as the header of a
                        # table only when the delimiter row under it has as many cells.
                        delimiter = "|" + " --- |" * columns
                        alone = rendered_tables("".join(f"{row}\n{delimiter}\n\n" for row in rows))
                        self.assertEqual([len(single[0]) for single in alone], [columns] * len(rows))
                        # An escaped pipe is a pipe inside its cell, not a cell boundary.
                        self.assertEqual([sum(cell.count("|") for cell in row) for row in table],
                                         [row.count("\\|") for row in rows])
                self.assertGreater(text.count("\\|"), 0, path)


if __name__ == "__main__":
    unittest.main()
