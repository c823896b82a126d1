// Boost.JSON itself, for every architecture that the extension is built for.
#include <boost/json/src.hpp>
