#include "core/daemon.h"

int main() { return hostrixMain(); }
