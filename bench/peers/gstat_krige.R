# gstat_krige.R POINTS OUT SECONDS: R gstat's ordinary kriging (linear model, the 32
# nearest) of POINTS to 200 x 200 nodes of the unit square; the call's time into SECONDS.
suppressPackageStartupMessages({ library(sp); library(gstat) })
a <- commandArgs(TRUE)
d <- read.csv(a[1])
coordinates(d) <- ~x + y
g <- seq(0.0025, 0.9975, length.out = 200)
nd <- expand.grid(x = g, y = g)  # x fastest: row-major from the minimum y
coordinates(nd) <- ~x + y
m <- vgm(psill = 1, model = "Lin", range = 0)  # unbounded: gamma = h
t <- system.time(k <- krige(z ~ 1, d, nd, model = m, nmax = 32, debug.level = 0))[["elapsed"]]
cat(t, "\n", file = a[3])
write.table(k$var1.pred, a[2], row.names = FALSE, col.names = FALSE)
