#pragma once
// The desktop program's entry: one running instance per user (a second start brings the first one's
// windows forward and exits), the main queue on Qt's event loop, SIGTERM/SIGINT and the end of the
// desktop session turned into an orderly quit, then the application object.
namespace pelmora {

int runApplication(int argc, char** argv);

}  // namespace pelmora
