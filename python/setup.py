"""Builds the module against the installed library, whose version it takes."""

import subprocess

from pybind11.setup_helpers import Pybind11Extension
from setuptools import setup


def library(option):
    command = ["pkg-config", option, "Telvane_AVFilter", "libavutil"]
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.split()


setup(
    version=library("--modversion")[0],
    ext_modules=[
        Pybind11Extension(
            "telvane_avfilter._core",
            ["telvane_avfilter/_core.cpp"],
            cxx_std=20,
            define_macros=[("__STDC_CONSTANT_MACROS", None)],
            extra_compile_args=library("--cflags"),
            extra_link_args=library("--libs"),
        )
    ],
)
