# The harness is that of the black-box tests, found through PYTHONPATH.
pytest_plugins = ["session_fixtures"]
