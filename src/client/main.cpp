#include "qavel-client.h"

int main(int argc, char** argv) { return qavelClientMain(argc, argv); }
