// ovita2ctl: see client/client_app.h.
#include <iostream>

#include "client/client_app.h"

int main(int argc, char** argv) { return controlplane::RunClient(argc, argv, std::cout, std::cerr); }
