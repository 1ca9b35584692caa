#include "gateway/homodyne.hpp"
