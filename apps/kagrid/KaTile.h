#pragma once

// Tiled gridding: `kagrid plan` settles once what depends on all the data
// (the filled record, the lattice, each tile's halo) and writes each tile's
// points to a shard; `kagrid tile` grids one tile from its shard, on any
// machine and in any order; `kagrid merge` builds the mosaic. The mosaic is
// the grid a single run makes, node for node.

// Whether `word` is one of plan, tile, merge.
bool IsTileCommand(const char* word);
// argv[0] is the command's name. Returns the exit status (0, 1 failure, 2 usage).
int RunTileCommand(int argc, char** argv);
