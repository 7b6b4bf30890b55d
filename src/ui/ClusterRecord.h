#pragma once

#include "vpn/NQVPNCountry.h"

#include <memory>

// A catalogue record as the server list shares it: the same record may sit in the catalogue
// and in a tab, and the favourite and selection flags are written on that one record.
using ClusterRecord = std::shared_ptr<NQVPNCountry>;
