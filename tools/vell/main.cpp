// vell: the command-line front end of the VellAudio engine.
#include "Command.h"

int main(int argc, char** argv)
{
    return vell::tool::runCommandLine(argc, argv);
}
