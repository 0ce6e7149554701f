#pragma once

#include <cstdio>

#include "CtlCommandLine.h"

// Carries out one request against the daemon and prints the outcome; returns the exit status.
int runCtl(const CtlRequest& request, FILE* out, FILE* err);
