#pragma once

/** Terminal modes of standard input; nothing happens where it is no terminal. Main thread. */

/** Remembers the settings and gives them back when the process exits. */
void PlatformSaveTerminal();

/** Delivers input line by line, with the echo that the terminal had when it was saved. */
void PlatformSetTerminalLineInput();

/** Delivers every character as it is typed, without echo. */
void PlatformSetTerminalCharacterInput();
