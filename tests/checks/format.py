"""format.py ROOT CLANG-FORMAT: every source is formatted according to .clang-format."""
import subprocess
import sys
import tree

sys.exit(subprocess.run([sys.argv[2], "--dry-run", "-Werror", *map(str, tree.files())], check=False).returncode)
