"""The installed tree serves its users: pkg-config, find_package, shared and static, C99 and C++.

usage: consumer_test.py BUILD_DIRECTORY CMAKE CC CXX
"""
import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

from small_receiver import Receiver

HERE = Path(__file__).resolve().parent


def run(*command, **options):
    result = subprocess.run([str(c) for c in command], text=True, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)
    if result.returncode != 0:
        sys.exit(f"{' '.join(str(c) for c in command)}\n{result.stdout}\n"
                 f"exit status {result.returncode}")
    return result.stdout


def main():
    build, cmake, cc, cxx = sys.argv[1:]
    work = Path(tempfile.mkdtemp(prefix="ruv_consumer_"))
    try:
        prefix = work / "prefix"
        for component in ("libruv1", "libruv-dev"):
            run(cmake, "--install", build, "--component", component, "--prefix", prefix)
        library = next(prefix.glob("lib*/**/libruv.so")).parent
        environment = dict(os.environ, LD_LIBRARY_PATH=str(library),
                           PKG_CONFIG_PATH=str(library / "pkgconfig"))
        flags = run("pkg-config", f"--define-variable=prefix={prefix}", "--cflags", "--libs", "ruv",
                    env=environment).split()
        static = run("pkg-config", f"--define-variable=prefix={prefix}", "--cflags", "--static",
                     "--libs", "ruv", env=environment).replace("-lruv", "-l:libruv.a").split()
        strict = ("-std=c99", "-pedantic", "-Wall", "-Wextra", "-Werror")
        source = HERE / "consumer" / "consumer.c"
        run(cc, *strict, source, "-o", work / "pc_shared", *flags)
        run(cc, *strict, source, "-o", work / "pc_static", *static)
        for header in ("ruvlib.h", "ruvlibsetters.h"):
            alone = work / "alone.c"
            alone.write_text(f'#include "{header}"\n'
                             'int main(void) { return RUVSetLogging(0); }\n')
            run(cc, *strict, f"-I{prefix}/include/ruv", alone, "-o", work / "alone", *flags[-2:])
        run(cxx, "-std=c++11", "-pedantic", "-Wall", "-Wextra", "-Werror",
            HERE / "consumer" / "consumer.cpp", "-o", work / "pc_cxx", *flags)
        examples = prefix / "share" / "doc" / "libruv-dev" / "examples"
        for project, directory in ((HERE / "consumer", "cm"), (examples, "examples")):
            run(cmake, "-G", "Ninja", "-S", project, "-B", work / directory,
                f"-DCMAKE_PREFIX_PATH={prefix}",
                f"-DCMAKE_C_COMPILER={cc}", f"-DCMAKE_CXX_COMPILER={cxx}")
            run(cmake, "--build", work / directory)
        for program in (work / "pc_cxx", work / "cm" / "in_cxx"):
            run(program, env=environment)
        receiver = Receiver()
        senders = (work / "pc_shared", work / "pc_static", work / "cm" / "with_shared",
                   work / "cm" / "with_archive")
        for program in senders:
            run(program, receiver.port, env=environment)
        needed = run("readelf", "-d", work / "pc_static")
        if "libruv" in needed:
            sys.exit("the static program needs the shared library")
        if receiver.wait(len(senders)) != [b"sent by the consumer"] * len(senders):
            sys.exit(f"arrived: {receiver.events}")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
