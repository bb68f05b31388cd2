test_that("read_orb_many stacks the tables of a folder with a file factor", {
  skip_without_fixtures()
  dir <- file.path(tempdir(), "many")
  dir.create(dir, showWarnings = FALSE)
  on.exit(unlink(dir, recursive = TRUE))
  file.copy(fixture(c("texts.orb", "two_blocks.orb")), dir)
  both <- read_orb_many(dir, variables = "all")
  a <- read_orb(file.path(dir, "texts.orb"), variables = "all")
  b <- read_orb(file.path(dir, "two_blocks.orb"), variables = "all")
  expect_identical(levels(both$samples$file), c("texts.orb", "two_blocks.orb"))
  for (table in c("samples", "fixations", "messages", "trials")) {
    expect_identical(names(both[[table]])[[1]], "file")
    expect_identical(as.integer(table(both[[table]]$file)),
                     c(nrow(a[[table]]), nrow(b[[table]])), label = table)
  }
  expect_identical(both$samples$gaze_x_left, c(a$samples$gaze_x_left, b$samples$gaze_x_left))
  # A variable only one of them has is NA in the other's trials.
  expect_identical(both$trials$rt, c(rep(NA, nrow(a$trials)), b$trials$rt))
  cafe <- "caf\u00e9"
  expect_identical(both$trials[[cafe]], c(a$trials[[cafe]], rep(NA, nrow(b$trials))))
  expect_length(both$info$recordings, 2)

  one_each <- read_orb_many(file.path(dir, c("two_blocks.orb", "texts.orb")))
  expect_identical(levels(one_each$blocks$file), c("two_blocks.orb", "texts.orb"))
  expect_output(print(one_each), "<orb_recording of 2 recordings>")
  expect_length(summary(one_each), 2)
  twice <- read_orb_many(file.path(dir, c("texts.orb", "texts.orb")))
  expect_identical(nlevels(twice$samples$file), 2L)
  expect_error(read_orb_many(file.path(dir, "none")), class = "orb_missing_file")
  expect_error(read_orb_many(character()), class = "orb_bad_argument")
})
