#include "WWPN_discovery.h"

WWPN::WWPN() {}

WWPN::~WWPN() {}

std::vector<std::string> WWPN::getWWPN()
{
    return std::vector<std::string>();
}
