// Starts the desktop program.
#include "app/application_main.h"

int main(int argc, char** argv) { return pelmora::runApplication(argc, argv); }
