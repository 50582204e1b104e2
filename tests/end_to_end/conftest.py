"""The tests that wait for a time-out begin first, so that all the others run while they wait."""


def pytest_collection_modifyitems(items):
    items.sort(key=lambda item: item.path.name != "test_timeouts.py")
