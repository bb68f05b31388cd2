test_that("print shows what the orb command's info shows", {
  skip_without_fixtures()
  rec <- read_orb(fixture("two_blocks.orb"))
  lines <- utils::capture.output(print(rec))
  expect_identical(lines[1:4], c(
    fixture("two_blocks.orb"),
    "  tracker    revision 3, model 2 (MK)",
    "  block 1    10000-10300 ms (0.300 s), 1000 Hz, left eye",
    "  block 2    11000-11499 ms (0.499 s), 500 Hz, both eyes"))
  expect_identical(lines[-(1:4)], c(
    sprintf("  samples    %d", nrow(rec$samples)),
    sprintf("  fixations  %d", nrow(rec$fixations)),
    sprintf("  saccades   %d", nrow(rec$saccades)),
    sprintf("  blinks     %d", nrow(rec$blinks)),
    sprintf("  messages   %d", nrow(rec$messages)),
    sprintf("  trials     %d", nrow(rec$trials)),
    "  damage     none reported"))
  s <- summary(rec)[[1]]
  expect_identical(s$blocks$end_ms, c(10300, 11499))
  expect_identical(s$samples, nrow(rec$samples))
})

test_that("damage lines that differ in their numbers only are counted together", {
  lines <- character()
  orbapi:::orb_damage_rows(c("bad item at 12", "bad item at 40", "short block 3"),
                           function(k, v) lines <<- c(lines, paste(k, v)))
  expect_identical(lines, c("damage bad item at 12  (and 1 more like it)", " short block 3"))
})

test_that("the example recording reads and prints as documented", {
  rec <- read_orb(example_recording(), variables = "all")
  expect_identical(rec$info$library_version, as.character(utils::packageVersion("orbapi")))
  expect_output(print(rec), "block 2    2999-4499 ms \\(1.500 s\\), 1000 Hz, both eyes")
  expect_identical(rec$trials$TRIALID, 1:2)
  expect_identical(as.vector(tapply(rec$fixations$duration, rec$fixations$trial, sum)) > 0,
                   c(TRUE, TRUE))
})
