#!/bin/sh
# Sample plugin: prints "environment:" and then the environment it was started with, one variable
# a line. Read from /proc because the shell adds PWD of its own.
printf 'environment:\n'
/usr/bin/tr '\000' '\n' </proc/$$/environ
