#!/usr/bin/env python3
"""What can be checked of the OpenWrt package without the OpenWrt SDK.

lint.py TREE PREFIX: TREE holds a `make install` of this tree with its prefix PREFIX.
- the package Makefile sets its PKG_ variables, builds every package it defines, and
  names only files that exist: ./files/... here, $(PKG_INSTALL_DIR)/usr/... in TREE;
- every shared library a packaged program needs (readelf -d) is in that package's
  DEPENDS, so opkg installs it;
- the init and hotplug scripts parse as POSIX sh (dash) and pass shellcheck when it
  is installed.
"""
import pathlib
import re
import shutil
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
PACKAGE = HERE / "hostrix"
# Libraries every OpenWrt system has (musl's libc, libgcc_s from the toolchain).
BASE = {"libc", "libm", "libgcc_s", "libpthread", "libdl", "librt", "ld-linux-x86-64"}
# A library's soname stem and the OpenWrt package that ships it.
PACKAGE_OF = {"libstdc++": "libstdcpp", "libnftnl": "libnftnl", "libmnl": "libmnl",
              "libsqlite3": "libsqlite3", "libmicrohttpd": "libmicrohttpd-no-ssl",
              "libmosquitto": "libmosquitto-nossl"}


def defines(text):
    """The body of every `define NAME ... endef`, by NAME."""
    return {m[1]: m[2] for m in re.finditer(r"^define ([^\n]+)\n(.*?)^endef", text, re.S | re.M)}


def lint_makefile(tree, prefix, problems):
    text = (PACKAGE / "Makefile").read_text()
    for var in ("PKG_NAME", "PKG_VERSION", "PKG_RELEASE", "PKG_LICENSE"):
        if not re.search(rf"^{var}:=\S", text, re.M):
            problems.append(f"Makefile: {var} is not set")
    blocks = defines(text)
    built = set(re.findall(r"\$\(eval \$\(call BuildPackage,([^)]+)\)\)", text))
    packages = {name.split("/")[1] for name in blocks if re.fullmatch(r"Package/[^/]+", name)}
    for name in sorted(packages - built):
        problems.append(f"Makefile: Package/{name} is defined but never built")
    for name in sorted(built):
        depends = set(re.findall(r"\+([\w.-]+)", blocks.get(f"Package/{name}", "")))
        install = blocks.get(f"Package/{name}/install", "")
        if not install:
            problems.append(f"Makefile: Package/{name}/install is missing")
        for local in re.findall(r"\./files/([\w.-]+)", install):
            if not (PACKAGE / "files" / local).is_file():
                problems.append(f"Makefile: {name} installs ./files/{local}, which is missing")
        for optional, path in re.findall(r"^\t(-?)\$\(INSTALL_\w+\) \$\(PKG_INSTALL_DIR\)/usr/(\S+)", install, re.M):
            program = tree / prefix.lstrip("/") / path
            if not program.exists():
                if not optional:
                    problems.append(f"Makefile: {name} installs usr/{path}, which make install does not make")
                continue
            if "_BIN)" in install.split(path)[0].rsplit("\n", 1)[-1]:
                lint_depends(name, program, depends, problems)


def lint_depends(name, program, depends, problems):
    dynamic = subprocess.run(["readelf", "-d", str(program)], capture_output=True, text=True).stdout
    for soname in re.findall(r"\(NEEDED\).*\[(.+?)\]", dynamic):
        stem = soname.split(".so")[0]
        if stem in BASE:
            continue
        wanted = PACKAGE_OF.get(stem)
        if wanted is None:
            problems.append(f"{program.name} needs {soname}: no OpenWrt package is known for it")
        elif wanted not in depends:
            problems.append(f"{name}: {program.name} needs {soname}, but DEPENDS lacks +{wanted}")


def lint_scripts(problems):
    scripts = sorted(p for p in (PACKAGE / "files").iterdir() if p.suffix in (".init", "") or "hotplug" in p.name)
    for script in scripts:
        if script.suffix == ".conf":
            continue
        parsed = subprocess.run(["dash", "-n", str(script)], capture_output=True, text=True)
        if parsed.returncode != 0:
            problems.append(f"{script.name}: {parsed.stderr.strip()}")
        if shutil.which("shellcheck"):
            checked = subprocess.run(["shellcheck", str(script)], capture_output=True, text=True)
            if checked.returncode != 0:
                problems.append(f"{script.name}: shellcheck:\n{checked.stdout}")


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: lint.py TREE PREFIX")
    problems = []
    lint_makefile(pathlib.Path(sys.argv[1]), sys.argv[2], problems)
    lint_scripts(problems)
    for problem in problems:
        print(f"openwrt lint: {problem}")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
