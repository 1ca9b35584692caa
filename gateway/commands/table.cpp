// Every command of the layer: name, usage (quoted in count errors), input and output counts.
// Listed commands appear in "valid commands: ..." in this order, which is the help text's.
#include "gateway/commands/table.hpp"

namespace mrkit::commands {

const std::vector<Command>& command_table() {
    static const std::vector<Command> table = {
        {"sense", "[img, status] = mrkit('sense', folded, sens, fullSize, Name, Value...)", 3,
         kManyInputs, 2, sense, true},
        {"sos", "y = mrkit('sos', x, coilDim)", 2, 2, 1, sos, true},
        {"pcsos", "y = mrkit('pcsos', x, coilDim)", 2, 2, 1, pcsos, true},
        {"fftshift", "y = mrkit('fftshift', x, dim)", 2, 2, 1, fftshift, true},
        {"ifftshift", "y = mrkit('ifftshift', x, dim)", 2, 2, 1, ifftshift, true},
        {"zeropad", "y = mrkit('zeropad', x, newSize)", 2, 2, 1, zeropad, true},
        {"ringing", "y = mrkit('ringing', x, strength, width)", 3, 3, 1, ringing, true},
        {"gradwarp", "[xo, yo, zo] = mrkit('gradwarp', x, y, z, coefSin, coefCos, coefZ, r0)", 7,
         7, 3, gradwarp, true},
        {"-spans", "t = mrkit('-spans')", 0, 0, 1, spans, false},
    };
    return table;
}

}  // namespace mrkit::commands
