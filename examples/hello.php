<?php
$user = "Ada";
$fruits = ["apple", "pear", "plum"];
$admin = false;
?>
<!DOCTYPE html>
<html>
<head>
<title>Hello from PHP</title>
<link rel="stylesheet" href="<?= "style.css?v=" . 3 ?>">
</head>
<body>
<h1>Hello, <?= htmlspecialchars($user) ?>!</h1>
<p class="<?= $admin ? 'admin' : 'visitor' ?>">You have <?= count($fruits) ?> fruits:</p>
<ul>
<?php foreach ($fruits as $i => $fruit): ?>
  <li id="fruit-<?= $i ?>"><?= ucfirst($fruit) ?></li>
<?php endforeach; ?>
</ul>
<?php if ($admin): ?><script src="admin.js"></script><?php endif; ?>
<?php include "inc/footer.php"; ?>
</body>
</html>
