// Engine sources are added beside this file.
