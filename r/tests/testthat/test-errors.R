test_that("a missing file, a refused one and bad arguments are told apart", {
  expect_error(read_orb(file.path(tempdir(), "nowhere.orb")), class = "orb_missing_file",
               regexp = "nowhere.orb': no such file")
  expect_error(read_orb(tempdir()), class = "orb_missing_file")
  bad <- tempfile(fileext = ".orb")
  writeLines("these are not the bytes of a recording", bad)
  err <- tryCatch(read_orb(bad), orb_error = identity)
  expect_s3_class(err, "orb_error")
  expect_match(conditionMessage(err), "^cannot read '.*': .*[Cc]orrupt")
  expect_identical(err$path, bad)
  expect_identical(paste0("cannot read '", bad, "': ", err$reason), conditionMessage(err))
  expect_error(read_orb(as.raw(1:10)), class = "orb_error", regexp = "the recording's bytes")

  path <- example_recording()
  expect_error(read_orb(c(path, path)), class = "orb_bad_argument", regexp = "`path`")
  expect_error(read_orb(path, velocities = NA), class = "orb_bad_argument", regexp = "`velocities`")
  expect_error(read_orb(path, consistency = 2.5), class = "orb_bad_argument", regexp = "`consistency`")
  expect_error(read_orb(path, consistency = 16), class = "orb_bad_argument")
  expect_error(read_orb(path, trial_start = ""), class = "orb_bad_argument", regexp = "`trial_start`")
  expect_error(read_orb(path, variables = 3), class = "orb_bad_argument", regexp = "`variables`")
  expect_error(read_orb(path, start = "a"), class = "orb_bad_argument", regexp = "`start`")
  expect_error(read_orb(path, columns = list("time")), class = "orb_bad_argument")
})

test_that("a damaged recording is refused without the tolerant scan, with the library's reason", {
  skip_without_fixtures()
  err <- expect_no_warning(tryCatch(read_orb(fixture("damaged.orb")), orb_error = identity))
  expect_s3_class(err, "orb_error")
  expect_true(nzchar(err$reason))
  expect_false(grepl("\n$", conditionMessage(err)))
})

test_that("nothing is printed while reading, not even for a damaged recording", {
  skip_without_fixtures()
  out <- utils::capture.output(
    invisible(suppressWarnings(read_orb(fixture("damaged.orb"), consistency = 6))),
    try(read_orb(fixture("damaged.orb")), silent = TRUE),
    invisible(read_orb(example_recording())))
  expect_identical(out, character())
})
