// SPDX-License-Identifier: Apache-2.0
#pragma once

// The audio HAL's dump files and commands, by the chip vendor's audio toolkit.

// Copies every dump file that the HAL lists to its name in /data/logs/audiohal/audio_dump/, which
// is made when missing (mode 0770), then sets "sys.brevix.mtk.audio.dump" to "0". Blocks meanwhile
// and holds at most one piece of 350,000 bytes. Failures are logged. A malformed list ends the
// copy. If a local file cannot be opened, the next token (the following file's name) is read as its
// size, which normally ends the copy.
void ZQCopyAudioHalDumpFiles();

// Sends the HAL the command number `command` with `value` and writes the HAL's status, 0 or a
// negative error, to "sys.brevix.mkt.audio.cmd". Blocks until the HAL has answered.
void setAudioCommand(int command, int value);
