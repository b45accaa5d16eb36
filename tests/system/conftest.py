"""Fixtures of the system tests. A log line that a test did not allow fails it."""

import pytest

from node import Node


@pytest.fixture(scope="module")
def shared_node():
    """One node for all tests of a file; each must leave it as it found it."""
    with Node() as node:
        yield node


@pytest.fixture
def node(shared_node):  # pylint: disable=redefined-outer-name
    """The file's node, its logs watched for the length of one test."""
    shared_node.allowed.clear()
    shared_node.unexpected_lines()
    yield shared_node
    assert shared_node.unexpected_lines() == []


@pytest.fixture
def admin(node):  # pylint: disable=redefined-outer-name
    return node.client("admin")


@pytest.fixture
def viewer(node, admin):  # pylint: disable=redefined-outer-name
    """An account without an administrator's rights that may use the application."""
    privilege = {"user": "viewer", "app": "KORV.KRX.Pavane"}
    assert admin.call("KORV.Core.AppPriv", "grant", **privilege)["success"]
    yield node.client("viewer")
    assert admin.call("KORV.Core.AppPriv", "revoke", **privilege)["success"]


@pytest.fixture(scope="module")
def single_worker_shared_node():
    """A node with one public worker, so that a test knows which process serves it."""
    with Node(settings="workers: {public: 1, peer: 1}\n") as node:
        yield node


@pytest.fixture
def single_worker_node(single_worker_shared_node):  # pylint: disable=redefined-outer-name
    single_worker_shared_node.allowed.clear()
    single_worker_shared_node.unexpected_lines()
    yield single_worker_shared_node
    assert single_worker_shared_node.unexpected_lines() == []
