// Values are read as text, int or double only.
#include "vantdr/file.h"

int Probe(std::map<std::string, bool>& flags) { return VantDRCore::File::Read("/etc/x", flags); }
