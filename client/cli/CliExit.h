#pragma once

// Exit codes of zrui-cli. Scripts tell the outcomes apart by these alone.
enum CliExit {
    CliOk = 0,
    CliFailure = 1, // socket or protocol error
    CliUsage = 2, // bad command line
    CliCancelled = 3, // the user pressed Cancel
    CliStateError = 4, // the server refused the operation in this session state
    CliTokenAbsent = 5, // the token was pulled out
    CliNoServer = 6, // nobody listens on the socket
    CliTimeout = 7, // the user did not answer within --timeout
    CliClosed = 8, // the server closed the connection
    CliNoResult = 9, // the server answered "no result"
    CliForeignServer = 10, // the socket is held by a process of another user
    CliBusy = 11 // the server is busy with another program
};

// Maps a client library code (ZRUI_OK, ZRUI_E_*) to an exit code.
int cliExitForCode(int code);
