library(testthat)
library(orbapi)

test_check("orbapi")
