#include "MorvaneHelper/HelperApplication.h"

int main(int argc, char** argv) { return morvane::TimeMachineHelperApp::run(argc, argv); }
