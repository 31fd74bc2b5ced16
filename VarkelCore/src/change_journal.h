#pragma once
// What the window and the command line put into the change journal for the changes they
// send through the shared core: the sensor a change goes to, the variables a set command
// changes with their values before and after, and one line per other change.

#include <string>
#include <vector>

#include "journal.h"
#include "variable_io.h"

namespace varkel {

// The model a table is of: its file's name without folder and extension.
std::string ModelOfTable(const ConfigParser& parser);

// The sensor behind `client`: its address, the model of `parser`'s table and the serial
// number: the one read on this connection, else asked of the sensor through `host`.
quarn::journal::Site ChangeSite(TableHost& host, quarn::lidar::KtcClient& client, ConfigParser& parser);

// The lines for the variables the user changed in `set` (`what`: "set" or "restore"), the
// values before from the bytes the write's fresh read cut. One line for a field-of-view
// write. Values of raw variables (keys, passwords) are masked: the program never shows them.
std::vector<quarn::journal::Change> SetChanges(TableHost& host, const ConfigParser& parser, const PreparedSet& set,
                                               const ReadBytes& fresh, const std::string& what);
void RecordSet(const quarn::journal::Site& site, std::vector<quarn::journal::Change> changes,
               const SendOutcome& outcome);

// One line for an exchange that changes the sensor by itself (console, restart, reset,
// upgrade): `ret` and `code` as the client gave them.
void RecordExchange(const quarn::journal::Site& site, const std::string& what, const std::string& name, int ret,
                    int code);

}  // namespace varkel
