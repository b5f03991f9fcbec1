#include "daemon/entry.h"

int main(int argc, char** argv) { return orv::AgentMain(argc, argv); }
